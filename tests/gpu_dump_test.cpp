// Frame dump files: the format table, the names, the counters and the property switch.
#include "gpu_dump.h"

#include <android/log.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>
#include <string>
#include <vector>

#include "GpuTestUtil.h"
#include "LogCapture.h"

namespace {

using namespace ::vendor::quenlark::hardware::capture::V1_0::implementation;
using gpu_test::DumpFolder;

struct FormatRow {
    uint32_t format;
    const char* name;
    uint32_t stride;
    uint32_t height;
    uint32_t pitch;
    uint64_t size;
};

void PrintTo(const FormatRow& row, std::ostream* os) {
    *os << row.name << " stride " << row.stride;
}

class DumpFormatTest : public ::testing::TestWithParam<FormatRow> {};

TEST_P(DumpFormatTest, PitchSizeAndName) {
    const FormatRow& row = GetParam();
    uint32_t pitch = 0xdead;
    uint64_t size = 0xdead;
    char name[kDumpNameSize];
    memset(name, 'x', sizeof(name));
    CalculateDumpInfo(row.stride, row.height, row.format, &pitch, &size, name);
    EXPECT_EQ(row.pitch, pitch);
    EXPECT_EQ(row.size, size);
    EXPECT_STREQ(row.name, name);
    // The rest of the name buffer is cleared, not left as it was.
    for (size_t i = strlen(row.name); i < sizeof(name); ++i) ASSERT_EQ('\0', name[i]) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Table, DumpFormatTest,
    ::testing::Values(FormatRow{1, "RGBA8888", 7680, 1080, 1920, 7680ull * 1080},
                      FormatRow{3, "RGB888", 5760, 1080, 1920, 5760ull * 1080},
                      FormatRow{3, "RGB888", 100, 3, 33, 300},  // pitch rounds down
                      FormatRow{4, "RGB565", 3840, 1080, 1920, 3840ull * 1080},
                      FormatRow{5, "BGRA8888", 7680, 1080, 1920, 7680ull * 1080},
                      FormatRow{16, "NV16", 1920, 1080, 1920, 1920ull * 1080 * 2},
                      FormatRow{17, "NV21", 1920, 1080, 1920, 1920ull * 1080 * 3 / 2},
                      FormatRow{17, "NV21", 3, 3, 3, 13},  // 27 / 2 rounds down
                      FormatRow{20, "YUV422", 3840, 1080, 1920, 3840ull * 1080},
                      FormatRow{21, "NV12", 1920, 1080, 1920, 1920ull * 1080 * 3 / 2},
                      FormatRow{22, "ARGB16161616", 15360, 1080, 1920, 15360ull * 1080},
                      FormatRow{43, "ABGR2101010", 7680, 1080, 1920, 7680ull * 1080},
                      // The 10-bit rows scale the byte stride up by 5/4 for the pitch.
                      FormatRow{54, "YC420_10B", 2400, 1080, 3000, 2400ull * 1080 * 3 / 2},
                      FormatRow{262, "YUV422_10B", 2400, 1080, 3000, 2400ull * 1080},
                      FormatRow{0x32315659, "YUV420_8B", 1920, 1080, 1920, 1920ull * 1080 * 3 / 2},
                      // Sizes beyond 32 bits are kept whole.
                      FormatRow{21, "NV12", 65536, 65536, 65536, 65536ull * 65536 * 3 / 2},
                      // The 5/4 pitch is 32-bit arithmetic and wraps like it.
                      FormatRow{54, "YC420_10B", 0x40000000, 1, 0x40000000u * 5u / 4u,
                                0x40000000ull * 3 / 2}),
    [](const ::testing::TestParamInfo<FormatRow>& info) {
        return std::string(info.param.name) + "_" + std::to_string(info.index);
    });

TEST(DumpFormatTest, FormatsOutsideTheTableHaveNoPitchSizeOrName) {
    for (uint32_t format : {0u, 2u, 6u, 15u, 18u, 19u, 23u, 42u, 44u, 53u, 55u, 261u, 263u,
                            0x32315658u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(format);
        LogCapture log;
        gpu_test::setGpuLogLevel(32);
        uint32_t pitch = 5;
        uint64_t size = 5;
        char name[kDumpNameSize] = "stale";
        CalculateDumpInfo(1920, 1080, format, &pitch, &size, name);
        EXPECT_EQ(0u, pitch);
        EXPECT_EQ(0u, size);
        EXPECT_STREQ("", name);
        const LogLine line = log.find("can't find this format");
        EXPECT_EQ(ANDROID_LOG_ERROR, line.priority);
        EXPECT_EQ("can't find this format: " + std::to_string(format) + "!",
                  stripLogPrefix(line.message));
    }
}

TEST(DumpFormatTest, MissingOutputReturnsAtOnce) {
    uint32_t pitch = 5;
    uint64_t size = 5;
    char name[kDumpNameSize] = "stale";
    CalculateDumpInfo(1920, 1080, 21, nullptr, &size, name);
    CalculateDumpInfo(1920, 1080, 21, &pitch, nullptr, name);
    CalculateDumpInfo(1920, 1080, 21, &pitch, &size, nullptr);
    EXPECT_EQ(5u, pitch);
    EXPECT_EQ(5u, size);
    EXPECT_STREQ("stale", name);
}

// A frame whose bytes are all distinct enough to tell a copy from a near miss.
std::vector<uint8_t> pattern(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
    return bytes;
}

// The counters are process-wide; every test starts them where a fresh process has them.
class DumpDataTest : public ::testing::Test {
protected:
    void SetUp() override {
        dump_input_index = 1;
        dump_output_index = 1;
        gpu_test::setGpuLogLevel(32);
    }
};

TEST(DumpCounterTest, BothCountersStartAtOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(_exit(dump_input_index.load() == 1 && dump_output_index.load() == 1 ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(DumpDataTest, InputAndOutputNamesCarryCounterPitchSizeAndFormat) {
    DumpFolder folder;
    LogCapture log;
    gpu_test::setGpuLogLevel(48);
    const std::vector<uint8_t> frame = pattern(1920 * 1080 * 3 / 2);

    // Pitch 1920 differs from the width 1916: the name says so.
    EXPECT_EQ(2u, DumpInputData(1920, 1916, 1080, 21, frame.data(), frame.size()));
    // Pitch equal to the width: no "_s" part.
    EXPECT_EQ(2u, DumpOutputData(1920, 1920, 1080, 21, frame.data(), frame.size()));
    EXPECT_EQ(3u, DumpOutputData(1920, 1920, 1080, 21, frame.data(), frame.size()));

    EXPECT_EQ((std::vector<std::string>{"gpu_intput-0001_s1920_1916x1080_NV12.raw",
                                        "gpu_output-0001_1920x1080_NV12.raw",
                                        "gpu_output-0002_1920x1080_NV12.raw"}),
              folder.files());
    EXPECT_EQ(frame,
              gpu_test::readFile(folder.path() + "gpu_intput-0001_s1920_1916x1080_NV12.raw"));
    EXPECT_EQ(2u, dump_input_index.load());
    EXPECT_EQ(3u, dump_output_index.load());
    EXPECT_EQ(1u, log.countExact("write 3110400 bytes to " + folder.path() +
                                 "gpu_intput-0001_s1920_1916x1080_NV12.raw success"))
        << log.dump();
}

TEST_F(DumpDataTest, TenBitPitchIsInTheName) {
    DumpFolder folder;
    const std::vector<uint8_t> frame = pattern(2400 * 4 * 3 / 2);
    EXPECT_EQ(1, DumpData("p-", 7, 2400, 1920, 4, 54, frame.data()));
    EXPECT_EQ((std::vector<std::string>{"p-0007_s3000_1920x4_YC420_10B.raw"}), folder.files());
}

TEST_F(DumpDataTest, PrefixOfTwentyOneCharactersOrMoreIsLeftOut) {
    DumpFolder folder;
    const std::vector<uint8_t> frame = pattern(64 * 2);
    const std::string twenty(20, 'a');
    const std::string twentyOne(21, 'b');
    EXPECT_EQ(1, DumpData(twenty.c_str(), 1, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1, DumpData(twentyOne.c_str(), 2, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1, DumpData(std::string(60, 'c').c_str(), 3, 64, 16, 2, 1, frame.data()));
    EXPECT_EQ((std::vector<std::string>{"0002_16x2_RGBA8888.raw", "0003_16x2_RGBA8888.raw",
                                        twenty + "0001_16x2_RGBA8888.raw"}),
              folder.files());
}

TEST_F(DumpDataTest, CounterWrapsToOneAfter9999) {
    DumpFolder folder;
    const std::vector<uint8_t> frame = pattern(64 * 2);
    dump_input_index = 9999;
    EXPECT_EQ(10000u, DumpInputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(2u, DumpInputData(64, 16, 2, 1, frame.data()));
    dump_output_index = 12345;  // anything past the limit starts again too
    EXPECT_EQ(2u, DumpOutputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ((std::vector<std::string>{"gpu_intput-0001_16x2_RGBA8888.raw",
                                        "gpu_intput-9999_16x2_RGBA8888.raw",
                                        "gpu_output-0001_16x2_RGBA8888.raw"}),
              folder.files());
}

TEST_F(DumpDataTest, NothingIsWrittenUnlessThePropertyIsExactlyOne) {
    const std::vector<uint8_t> frame = pattern(64 * 2);
    for (const char* value : {"", "0", "true", "11", "1 ", " 1", "2"}) {
        SCOPED_TRACE(std::string("property \"") + value + "\"");
        DumpFolder folder(value);
        EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
        EXPECT_EQ(0u, DumpOutputData(64, 16, 2, 1, frame.data()));
        EXPECT_TRUE(folder.files().empty());
        EXPECT_EQ(1u, dump_input_index.load());
        EXPECT_EQ(1u, dump_output_index.load());
    }
    // And it is read for every frame.
    DumpFolder folder("0");
    EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
    DumpFolder::setProperty("1");
    EXPECT_EQ(2u, DumpInputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1u, folder.files().size());
}

TEST_F(DumpDataTest, BadArgumentsAreRefusedBeforeAnythingElse) {
    DumpFolder folder;
    LogCapture log;
    const std::vector<uint8_t> frame = pattern(64 * 2);
    struct Case {
        const char* prefix;
        uint32_t stride, width, height;
        const void* buffer;
        const char* message;
    };
    const Case cases[] = {
        {"p-", 64, 16, 2, nullptr, "DumpData buffer is NULL!"},
        {nullptr, 64, 16, 2, frame.data(), "DumpData buffer is NULL!"},
        {"p-", 0, 16, 2, frame.data(), "Invalid params: stride(0) width(16) height(2)"},
        {"p-", 64, 0, 2, frame.data(), "Invalid params: stride(64) width(0) height(2)"},
        {"p-", 64, 16, 0, frame.data(), "Invalid params: stride(64) width(16) height(0)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        log.clear();
        EXPECT_EQ(0, DumpData(c.prefix, 1, c.stride, c.width, c.height, 1, c.buffer));
        EXPECT_EQ(1u, log.countExact(c.message)) << log.dump();
        EXPECT_EQ(ANDROID_LOG_ERROR, log.find(c.message).priority);
    }
    EXPECT_TRUE(folder.files().empty());
}

TEST_F(DumpDataTest, FramesThatCannotBeDescribedOrDoNotFitAreNotWritten) {
    DumpFolder folder;
    const std::vector<uint8_t> frame = pattern(64 * 2);
    // No name for the format.
    EXPECT_EQ(0u, DumpInputData(64, 16, 2, 2, frame.data(), frame.size()));
    // The frame would be larger than the mapping behind it.
    EXPECT_EQ(0u, DumpInputData(64, 16, 3, 1, frame.data(), frame.size()));
    EXPECT_EQ(0u, DumpInputData(128, 32, 2, 1, frame.data(), frame.size()));
    EXPECT_TRUE(folder.files().empty());
    EXPECT_EQ(1u, dump_input_index.load());
    // Exactly fitting is fine.
    EXPECT_EQ(2u, DumpInputData(64, 16, 2, 1, frame.data(), frame.size()));
}

TEST_F(DumpDataTest, FailedOpenIsLoggedAndTheCounterStays) {
    DumpFolder folder;
    LogCapture log;
    gpu_test::setGpuLogLevel(48);
    setenv("CAPTURE_DUMP_DIR", "/nonexistent-capture-dump/", 1);
    const std::vector<uint8_t> frame = pattern(64 * 2);
    EXPECT_EQ(0u, DumpOutputData(64, 16, 2, 1, frame.data()));
    EXPECT_EQ(1u, dump_output_index.load());
    const LogLine line = log.find("failed to open [");
    EXPECT_EQ(ANDROID_LOG_DEBUG, line.priority) << log.dump();
    EXPECT_EQ("failed to open [/nonexistent-capture-dump/gpu_output-0001_16x2_RGBA8888.raw] err:" +
                  std::to_string(ENOENT),
              stripLogPrefix(line.message));
}

TEST_F(DumpDataTest, PathLongerThanTheBufferIsNotCutShort) {
    DumpFolder folder;
    // A folder whose name leaves too little room for the file name.
    std::string deep = folder.path() + std::string(90, 'd');
    ASSERT_EQ(0, mkdir(deep.c_str(), 0755));
    setenv("CAPTURE_DUMP_DIR", (deep + "/").c_str(), 1);
    const std::vector<uint8_t> frame = pattern(64 * 2);
    EXPECT_EQ(0u, DumpInputData(64, 16, 2, 1, frame.data()));
    EXPECT_TRUE(gpu_test::listFolder(deep).empty());
    rmdir(deep.c_str());
}

}  // namespace
