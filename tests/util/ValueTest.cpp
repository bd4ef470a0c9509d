#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/TestSupport.h"
#include "util/FileSystem.h"
#include "util/PropertyList.h"
#include "util/Utf8.h"
#include "util/Value.h"

using namespace korvo;

TEST(Value, NumbersCompareByValueAcrossBooleanIntegerAndReal) {
    EXPECT_EQ(Value(true), Value(1));
    EXPECT_EQ(Value(0), Value(false));
    EXPECT_EQ(Value(2.0), Value(2));
    EXPECT_FALSE(Value(2.5) == Value(2));
    EXPECT_FALSE(Value("1") == Value(1));
    EXPECT_EQ(Value(3.9).integerValue(), 3);
    EXPECT_EQ(Value("x").integerValue(), std::nullopt);
    EXPECT_TRUE(Value(true).isNumber());
}

TEST(PropertyList, RoundTripsEveryTypeIncludingNegativeIntegers) {
    Dictionary d{{"s", "text <&>"},     {"neg", -5},   {"big", INT64_MAX}, {"b", true},
                 {"r", 1.5},            {"data", Data{0, 1, 255}},
                 {"a", Array{1, "two", Dictionary{{"k", false}}}}};
    const std::string xml = writeXMLPropertyList(d);
    EXPECT_NE(xml.find("<integer>-5</integer>"), std::string::npos);
    auto back = readPropertyList(xml);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, Value(d));
    // Booleans stay booleans through a file.
    EXPECT_TRUE(back->asDictionary()->at("b").isBooleanStorage());
}

TEST(PropertyList, MalformedInputGivesNothing) {
    EXPECT_EQ(readPropertyList(""), std::nullopt);
    EXPECT_EQ(readPropertyList("<plist><dict><key>a</key>"), std::nullopt);
    EXPECT_EQ(readPropertyList(std::string("\0\0\0", 3)), std::nullopt);
}

TEST(Utf8, RejectsMalformedSequences) {
    EXPECT_TRUE(isValidUTF8("plain"));
    EXPECT_TRUE(isValidUTF8("\xC3\xA9\xF0\x9F\x98\x80"));
    EXPECT_TRUE(isValidUTF8(std::string("a\0b", 3)));
    EXPECT_FALSE(isValidUTF8("\xC0\xAF"));          // overlong
    EXPECT_FALSE(isValidUTF8("\xED\xA0\x80"));      // surrogate
    EXPECT_FALSE(isValidUTF8("\xF4\x90\x80\x80"));  // above U+10FFFF
    EXPECT_FALSE(isValidUTF8("\xE2\x82"));          // truncated
}

class FileSystemTest : public ::testing::Test {
protected:
    const test::TempDir tmp_;
    const std::string dir_ = tmp_.path();
};

TEST_F(FileSystemTest, AtomicWriteReplacesContentsAndSetsMode) {
    const std::string path = dir_ + "/f.txt";
    ASSERT_FALSE(writeFileAtomically(path, std::string_view("one"), 0600));
    ASSERT_FALSE(writeFileAtomically(path, std::string_view("two"), 0640));
    EXPECT_EQ(*readUTF8File(path), "two");
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    // No temporary file is left behind.
    EXPECT_EQ(directoryEntries(dir_)->size(), 1u);
}

// A client names the file: whatever it is, the read ends at once, bounded.
TEST_F(FileSystemTest, ReadsOnlyRegularFilesOfBoundedSize) {
    const auto description = [](const KorvoError& e) { return *e.userInfo->at("NSLocalizedDescription").asString(); };
    const std::string fifo = dir_ + "/fifo";  // nobody ever writes to it
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_FALSE(readFile(fifo));
    EXPECT_EQ(description(readFile(fifo).error()),
              "The file \"fifo\" couldn't be opened because it is not a regular file.");
    EXPECT_EQ(readUTF8File("/dev/zero").error().domain, "NSCocoaErrorDomain");

    const std::string huge = dir_ + "/huge.conf";
    ASSERT_FALSE(writeFileAtomically(huge, std::string_view("x")));
    ASSERT_EQ(::truncate(huge.c_str(), off_t{2} << 30), 0);  // 2 GiB, sparse
    EXPECT_EQ(description(readFile(huge).error()), "The file \"huge.conf\" couldn't be opened because it is too large.");
    ASSERT_EQ(::truncate(huge.c_str(), static_cast<off_t>(kMaximumReadFileSize)), 0);
    EXPECT_EQ(readFile(huge)->size(), kMaximumReadFileSize);
}

// A link planted under a name whose mode the helper sets is not followed.
TEST_F(FileSystemTest, PermissionsAreSetOnTheFileNeverThroughALink) {
    const std::string secret = dir_ + "/secret";
    ASSERT_FALSE(writeFileAtomically(secret, std::string_view("s"), 0600));
    ASSERT_EQ(::symlink(secret.c_str(), (dir_ + "/askpass").c_str()), 0);
    EXPECT_TRUE(setPosixPermissions(dir_ + "/askpass", 0777));
    struct stat st {};
    ASSERT_EQ(::stat(secret.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_FALSE(setPosixPermissions(secret, 0640));
    ASSERT_EQ(::stat(secret.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
}
