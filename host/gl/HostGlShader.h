// GL_EXT_YUV_target, which Mesa lacks, as plain GLSL ES 3.00 for the host graphics layer.
#pragma once

#include <string>

namespace host_gl {

struct ShaderRewrite {
    std::string text;
    bool rewritten = false;  // the text asked for the extension
    bool yuvSampler = false;  // it samples through __samplerExternal2DY2YEXT
    bool yuvOutput = false;   // it writes through a layout (yuv) output
};

// Text that asks for GL_EXT_YUV_target loses the request, its sampler type becomes a plain
// external sampler (the layer presents such textures as raw YUV), the yuv layout qualifier goes
// (the layer's render target keeps YUV as it is written), and the built-in conversions and
// standards are defined after the last #extension line. Other text comes back unchanged.
ShaderRewrite rewriteYuvTargetShader(const std::string& source);

}  // namespace host_gl
