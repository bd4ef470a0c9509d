#include <gtest/gtest.h>

#include <cerrno>

#include "util/Error.h"

using namespace korvo;

namespace {
const std::string kParamText = "At least one of the provided parameters for this operation is invalid.";
}

TEST(KorvoError, DescriptionJoinsTableTextAndMessageWithTwoLineFeeds) {
    KorvoError e = errorWithKorvoErrorCode(64, std::string("x"));
    EXPECT_EQ(e.domain, "com.tallowmar.Korvo");
    EXPECT_EQ(e.code, 64);
    EXPECT_EQ(e.localizedDescription(), kParamText + "\n\nx");
    EXPECT_EQ(errorWithKorvoErrorCode(64).localizedDescription(), kParamText);
}

TEST(KorvoError, CodesWithoutDescription) {
    // 60 and 72 have no text: the message alone, or no user information at all.
    for (int code : {60, 72}) {
        EXPECT_EQ(localizedDescriptionForKorvoErrorCode(code), std::nullopt);
        EXPECT_EQ(errorWithKorvoErrorCode(code, std::string("x")).localizedDescription(), "x");
        KorvoError bare = errorWithKorvoErrorCode(code);
        EXPECT_EQ(bare.userInfo, std::nullopt) << code;
        EXPECT_EQ(bare.code, code);
    }
    // Above the table, and negative codes (compared unsigned), likewise.
    for (std::int64_t code : {std::int64_t{75}, std::int64_t{1000}, std::int64_t{-1}, std::int64_t{INT64_MIN}}) {
        EXPECT_EQ(localizedDescriptionForKorvoErrorCode(code), std::nullopt) << code;
        EXPECT_EQ(errorWithKorvoErrorCode(code).userInfo, std::nullopt) << code;
    }
}

TEST(KorvoError, EveryOtherCodeHasADescription) {
    for (int code = 0; code <= 74; ++code) {
        if (code == 60 || code == 72) continue;
        ASSERT_TRUE(localizedDescriptionForKorvoErrorCode(code)) << code;
        EXPECT_FALSE(localizedDescriptionForKorvoErrorCode(code)->empty()) << code;
    }
}

TEST(KorvoError, RoundTripsThroughItsDictionaryForm) {
    KorvoError e = errorWithKorvoErrorCode(68, std::string("boom"));
    auto back = KorvoError::fromDictionary(e.toDictionary());
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, e);
    EXPECT_EQ(KorvoError::fromDictionary(Dictionary{{"code", 1}}), std::nullopt);
}

TEST(FileSystemError, FollowsFoundationCodesAndKeepsPosixError) {
    EXPECT_EQ(fileSystemError(ENOENT, FileOperation::Remove, "/x/y").code, 4);
    EXPECT_EQ(fileSystemError(ENOENT, FileOperation::Read, "/x/y").code, 260);
    EXPECT_EQ(fileSystemError(ENOENT, FileOperation::ListDirectory, "/x").code, 260);
    EXPECT_EQ(fileSystemError(EACCES, FileOperation::Write, "/x").code, 513);
    EXPECT_EQ(fileSystemError(EPERM, FileOperation::SetAttributes, "/x").code, 513);
    EXPECT_EQ(fileSystemError(EACCES, FileOperation::Read, "/x").code, 257);
    KorvoError e = fileSystemError(ENOENT, FileOperation::Remove, "/x/y");
    EXPECT_EQ(e.domain, "NSCocoaErrorDomain");
    const auto& underlying = *e.userInfo->at("NSUnderlyingError").asDictionary();
    EXPECT_EQ(underlying.at("domain"), Value("NSPOSIXErrorDomain"));
    EXPECT_EQ(underlying.at("code"), Value(ENOENT));
    EXPECT_EQ(e.userInfo->at("NSFilePath"), Value("/x/y"));
    EXPECT_NE(e.localizedDescription()->find("\"y\""), std::string::npos);
}
