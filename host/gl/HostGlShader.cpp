#include "HostGlShader.h"

#include <regex>
#include <sstream>
#include <vector>

namespace host_gl {

namespace {

// Defined before the shader's own precision statements, so every float carries its own.
// Limited range maps Y to 16..235 and chroma to 16..240 of 255.
constexpr const char* kPrelude = R"(precision highp float;
#define yuvCscStandardEXT int
const int itu_601 = 0;
const int itu_601_full_range = 1;
const int itu_709 = 2;
highp vec3 hostgl_luma_weights(int standard) {
    return standard == itu_709 ? vec3(0.2126, 0.7152, 0.0722) : vec3(0.299, 0.587, 0.114);
}
highp vec3 rgb_2_yuv(highp vec3 rgb, int standard) {
    highp vec3 k = hostgl_luma_weights(standard);
    highp float y = dot(rgb, k);
    highp vec3 yuv = vec3(y, (rgb.b - y) / (2.0 * (1.0 - k.b)), (rgb.r - y) / (2.0 * (1.0 - k.r)));
    if (standard == itu_601_full_range) return yuv + vec3(0.0, 0.5, 0.5);
    return vec3(16.0, 128.0, 128.0) / 255.0 + yuv * vec3(219.0, 224.0, 224.0) / 255.0;
}
highp vec3 yuv_2_rgb(highp vec3 yuv, int standard) {
    highp vec3 k = hostgl_luma_weights(standard);
    highp vec3 e = standard == itu_601_full_range
                       ? yuv - vec3(0.0, 0.5, 0.5)
                       : (yuv - vec3(16.0, 128.0, 128.0) / 255.0) * 255.0 / vec3(219.0, 224.0, 224.0);
    highp float r = e.x + 2.0 * (1.0 - k.r) * e.z;
    highp float b = e.x + 2.0 * (1.0 - k.b) * e.y;
    highp float g = (e.x - k.r * r - k.b * b) / k.g;
    return clamp(vec3(r, g, b), 0.0, 1.0);
}
)";

}  // namespace

ShaderRewrite rewriteYuvTargetShader(const std::string& source) {
    ShaderRewrite result;
    static const std::regex kRequest(R"(^\s*#\s*extension\s+GL_EXT_YUV_target\s*:.*$)");
    static const std::regex kDirective(R"(^\s*#\s*(version|extension)\b.*$)");
    static const std::regex kYuvSampler(R"(\b__samplerExternal2DY2YEXT\b)");
    static const std::regex kYuvLayout(R"(layout\s*\(\s*yuv\s*\)\s*)");

    std::vector<std::string> lines;
    std::istringstream in(source);
    bool asked = false;
    for (std::string line; std::getline(in, line);) {
        if (std::regex_match(line, kRequest)) {
            asked = true;
            continue;
        }
        lines.push_back(line);
    }
    if (!asked) {
        result.text = source;
        return result;
    }
    result.rewritten = true;
    size_t preludeAt = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (std::regex_match(lines[i], kDirective)) preludeAt = i + 1;
    }
    std::ostringstream out;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (i == preludeAt) out << kPrelude;
        std::string line = lines[i];
        if (std::regex_search(line, kYuvSampler)) {
            result.yuvSampler = true;
            line = std::regex_replace(line, kYuvSampler, "samplerExternalOES");
        }
        if (std::regex_search(line, kYuvLayout)) {
            result.yuvOutput = true;
            line = std::regex_replace(line, kYuvLayout, "");
        }
        out << line << '\n';
    }
    if (preludeAt >= lines.size()) out << kPrelude;
    result.text = out.str();
    return result;
}

}  // namespace host_gl
