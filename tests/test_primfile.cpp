// The primitive file: platform error numbers, the open flags, the unchecked write, the 2,047-byte
// cut of fwrite, sizes and offsets, and the console.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "zep.h"
#include "zeptest_util.h"
#include "zepos.h"

namespace {

using zeptest::slurp;

class PrimFile : public ::testing::Test {
protected:
    std::string at(const char* name) { return temp_ / name; }
    zeptest::TempDir temp_{"zepprim"};
};

TEST_F(PrimFile, NeverOpenedAndOpenFlags) {
    ZEPPrimitiveFileOp f;
    EXPECT_FALSE(f.isValid());
    EXPECT_EQ(f.write("text", 4), 0u);
    // read stores 0 and hands back whatever the last error is: nothing is called.
    zepos::SetLastError(1234);
    Uint32 got = 99;
    char buffer[8];
    EXPECT_EQ(f.read(sizeof buffer, buffer, &got), 1234u);
    EXPECT_EQ(got, 0u);
    ZEPPrimitiveFileOp::offsetType size = {77};
    EXPECT_EQ(f.getSize(&size), static_cast<Uint32>(zepos::ERROR_INVALID_HANDLE));
    EXPECT_EQ(size.offset, 0u);
    f.close();  // nothing to close, nothing happens
    f.seekToEnd();

    // The platform's "not found", also with 0x19 (bit 0x8 keeps the create bit from counting),
    // "path not found", and "access denied" for a directory.
    const std::tuple<std::string, Uint32, Uint32> refused[] = {{at("missing"), 0x1, 2},
                                                               {at("missing"), 0x19, 2},
                                                               {at("nodir/file"), 0x14, 3},
                                                               {temp_.path, 0x1, 5}};
    for (const auto& [path, flags, rc] : refused) {
        ZEPPrimitiveFileOp g;
        EXPECT_EQ(g.open(path.c_str(), flags), rc) << path << " " << flags;
        EXPECT_FALSE(g.isValid());
    }
    EXPECT_FALSE(zeptest::exists(at("missing")));

    // 0x11 creates the file for reading: a write fails with the refused access; close leaves
    // the handle as it was.
    ZEPPrimitiveFileOp e;
    EXPECT_EQ(e.open(at("created").c_str(), 0x11), 0u);
    EXPECT_TRUE(zeptest::exists(at("created")));
    EXPECT_EQ(e.write("x", 1), 5u);
    e.close();
    EXPECT_TRUE(e.isValid());
    // Write only (0x2) on an existing file, from its start: reading is refused.
    ZEPPrimitiveFileOp w;
    ASSERT_EQ(w.open(at("created").c_str(), 0x2), 0u);
    EXPECT_EQ(w.write("hello", 0), 0u);
    got = 9;
    EXPECT_EQ(w.read(sizeof buffer, buffer, &got), 5u);
    EXPECT_EQ(got, 0u);
    w.close();
    EXPECT_EQ(slurp(at("created")), "hello");
}

TEST_F(PrimFile, WriteReadSizeAndOffsets) {
    ZEPPrimitiveFileOp f;
    ASSERT_EQ(f.open(at("data").c_str(), 0x14), 0u);
    EXPECT_EQ(f.write("", 0), 0u);  // an empty string writes nothing
    ZEPPrimitiveFileOp::offsetType size = {5};
    EXPECT_EQ(f.getSize(&size), 0u);
    EXPECT_EQ(size.offset, 0u);
    EXPECT_EQ(f.write("0123456789", 0), 0u);
    EXPECT_EQ(f.write("abc\0def", 7), 0u);  // an explicit length passes the terminator
    EXPECT_EQ(f.getCurrentOffset().offset, 17u);
    ASSERT_EQ(f.getSize(&size), 0u);
    EXPECT_EQ(size.offset, 17u);

    f.seekToOffset({4});
    EXPECT_EQ(f.getCurrentOffset().offset, 4u);
    char buffer[32] = {};
    Uint32 got = 0;
    EXPECT_EQ(f.read(5, buffer, &got), 0u);
    EXPECT_EQ(std::string(buffer, got), "45678");
    // At the end a read succeeds with 0 bytes.
    f.seekToEnd();
    EXPECT_EQ(f.getCurrentOffset().offset, 17u);
    EXPECT_EQ(f.read(sizeof buffer, buffer, &got), 0u);
    EXPECT_EQ(got, 0u);
    f.fwrite("%s=%u;", "n", 42u);
    // fwrite cuts at 2,047 bytes.
    std::string big(3000, 'q');
    big[2046] = 'L';
    f.fwrite("%s", big.c_str());
    f.fwrite("%d", 7);
    f.close();
    EXPECT_EQ(slurp(at("data")),
              std::string("0123456789abc\0defn=42;", 22) + big.substr(0, 2047) + "7");

    // A second object opens the same file again at its start: the class never truncates.
    ZEPPrimitiveFileOp g;
    ASSERT_EQ(g.open(at("data").c_str(), 0x14), 0u);
    EXPECT_EQ(g.getCurrentOffset().offset, 0u);
    EXPECT_EQ(g.write("XY", 0), 0u);
    g.close();
    EXPECT_EQ(slurp(at("data")).substr(0, 4), "XY23");
}

TEST_F(PrimFile, ConsoleIsStandardOutputAndOutlivesClose) {
    fflush(stdout);
    const int saved = dup(1), out = open(at("console").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_EQ(dup2(out, 1), 1);
    close(out);
    ZEPPrimitiveFileOp f;
    f.openConsole();
    const bool valid = f.isValid();
    const Uint32 rc = f.write("to the console\n", 0);
    f.close();
    const bool stillOpen = fcntl(1, F_GETFD) >= 0;
    ASSERT_EQ(dup2(saved, 1), 1);
    close(saved);
    EXPECT_TRUE(valid);
    EXPECT_EQ(rc, 0u);
    EXPECT_TRUE(stillOpen);
    EXPECT_EQ(slurp(at("console")), "to the console\n");
}

// A daemon that closed its standard output: the report file gets descriptor 1, and close must
// close it, or the program's later output lands in the report.
TEST_F(PrimFile, FileOnAStandardDescriptorIsClosed) {
    const std::string report = at("report");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(1);
        ZEPPrimitiveFileOp f;
        if (f.open(report.c_str(), 0x14) != 0) _exit(2);
        f.write("report\n", 0);
        f.close();
        if (fcntl(1, F_GETFD) >= 0) _exit(3);  // still open
        if (open(report.c_str(), O_WRONLY | O_APPEND) != 1) _exit(4);
        (void)!write(1, "later\n", 6);
        _exit(0);
    }
    EXPECT_EQ(zeptest::waitExit(child), 0);
    EXPECT_EQ(slurp(report), "report\nlater\n");
}

}  // namespace
