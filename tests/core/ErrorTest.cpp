#include <gtest/gtest.h>

#include <cerrno>

#include "util/Error.h"

using namespace korvo;

// The client reads the description as the table's text, a blank line, then
// the specific message; the error crosses the bus as a dictionary.
TEST(KorvoError, DescriptionFormatAndDictionaryRoundTrip) {
    KorvoError e = errorWithKorvoErrorCode(64, std::string("x"));
    EXPECT_EQ(e.localizedDescription(),
              "At least one of the provided parameters for this operation is invalid.\n\nx");
    // A code without text (or outside the table) carries the message alone.
    EXPECT_EQ(errorWithKorvoErrorCode(60, std::string("x")).localizedDescription(), "x");
    EXPECT_EQ(errorWithKorvoErrorCode(-1).userInfo, std::nullopt);
    auto back = KorvoError::fromDictionary(e.toDictionary());
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, e);
    EXPECT_EQ(KorvoError::fromDictionary(Dictionary{{"code", 1}}), std::nullopt);
}

TEST(FileSystemError, KeepsThePosixErrorAndPath) {
    KorvoError e = fileSystemError(ENOENT, FileOperation::Remove, "/x/y");
    EXPECT_EQ(e.domain, "NSCocoaErrorDomain");
    EXPECT_EQ(e.code, 4);
    const auto& underlying = *e.userInfo->at("NSUnderlyingError").asDictionary();
    EXPECT_EQ(underlying.at("code"), Value(ENOENT));
    EXPECT_EQ(e.userInfo->at("NSFilePath"), Value("/x/y"));
}
