#include "platform/linux/codesigning/RequirementParser.h"

#include <optional>

#include "util/Format.h"

namespace korvo::platform::codesign {
namespace {

struct Token {
    enum class Kind { Word, String, Punctuation, End } kind = Kind::End;
    std::string text;
    std::size_t offset = 0;
};

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }
bool isPunctuation(char c) { return c == '[' || c == ']' || c == '=' || c == '(' || c == ')' || c == '!'; }

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    RequirementParse parse() {
        RequirementParse result;
        do {
            auto clause = parseClause();
            if (!clause) {
                result.error = error_;
                return result;
            }
            result.requirement.clauses.push_back(std::move(*clause));
        } while (acceptWord("and"));
        const Token rest = next();
        if (rest.kind != Token::Kind::End) {
            result.error = describe(rest, "expected \"and\" or the end of the requirement");
            return result;
        }
        result.ok = error_.empty();
        if (!result.ok) {
            result.error = error_;
        }
        return result;
    }

private:
    std::optional<RequirementClause> parseClause() {
        const Token keyword = next();
        if (keyword.kind != Token::Kind::Word) {
            return fail(keyword, "expected a clause");
        }
        if (keyword.text == "anchor") {
            if (!expectWord("apple") || !expectWord("generic")) {
                return std::nullopt;
            }
            return AnchorClause{};
        }
        if (keyword.text == "identifier") {
            acceptPunctuation('=');
            auto value = parseValue();
            if (!value) {
                return std::nullopt;
            }
            return IdentifierClause{std::move(*value)};
        }
        if (keyword.text == "certificate" || keyword.text == "cert") {
            if (!expectWord("leaf") || !expectPunctuation('[') || !expectWord("subject.OU") ||
                !expectPunctuation(']') || !expectPunctuation('=')) {
                return std::nullopt;
            }
            auto value = parseValue();
            if (!value) {
                return std::nullopt;
            }
            return LeafOrganizationalUnitClause{std::move(*value)};
        }
        return fail(keyword, "unknown clause");
    }

    std::optional<std::string> parseValue() {
        const Token value = next();
        if (value.kind == Token::Kind::String || (value.kind == Token::Kind::Word && value.text != "and")) {
            return value.text;
        }
        fail(value, "expected a value");
        return std::nullopt;
    }

    bool expectWord(std::string_view word) {
        const Token t = next();
        if (t.kind == Token::Kind::Word && t.text == word) {
            return true;
        }
        fail(t, formatString("expected \"%.*s\"", static_cast<int>(word.size()), word.data()));
        return false;
    }

    bool expectPunctuation(char c) {
        const Token t = next();
        if (t.kind == Token::Kind::Punctuation && t.text[0] == c) {
            return true;
        }
        fail(t, formatString("expected \"%c\"", c));
        return false;
    }

    bool acceptWord(std::string_view word) {
        const std::size_t saved = position_;
        const Token t = next();
        if (t.kind == Token::Kind::Word && t.text == word) {
            return true;
        }
        position_ = saved;
        return false;
    }

    void acceptPunctuation(char c) {
        const std::size_t saved = position_;
        const Token t = next();
        if (!(t.kind == Token::Kind::Punctuation && t.text[0] == c)) {
            position_ = saved;
        }
    }

    Token next() {
        while (position_ < text_.size() && isSpace(text_[position_])) {
            ++position_;
        }
        Token t;
        t.offset = position_;
        if (position_ == text_.size()) {
            return t;
        }
        const char c = text_[position_];
        if (isPunctuation(c)) {
            t.kind = Token::Kind::Punctuation;
            t.text = std::string(1, c);
            ++position_;
            return t;
        }
        if (c == '"') {
            t.kind = Token::Kind::String;
            ++position_;
            while (position_ < text_.size() && text_[position_] != '"') {
                if (text_[position_] == '\\' && position_ + 1 < text_.size()) {
                    ++position_;
                }
                t.text += text_[position_++];
            }
            if (position_ == text_.size()) {
                // Reported as a bad token: an unterminated string.
                t.kind = Token::Kind::Punctuation;
                t.text.push_back('"');
                unterminated_ = true;
                return t;
            }
            ++position_;
            return t;
        }
        t.kind = Token::Kind::Word;
        while (position_ < text_.size() && !isSpace(text_[position_]) && !isPunctuation(text_[position_]) &&
               text_[position_] != '"') {
            t.text += text_[position_++];
        }
        return t;
    }

    std::string describe(const Token& t, const std::string& what) const {
        if (unterminated_) {
            return formatString("unterminated string at offset %zu", t.offset);
        }
        if (t.kind == Token::Kind::End) {
            return formatString("%s at the end of the requirement", what.c_str());
        }
        return formatString("%s at offset %zu, found \"%s\"", what.c_str(), t.offset, t.text.c_str());
    }

    std::nullopt_t fail(const Token& t, const std::string& what) {
        if (error_.empty()) {
            error_ = describe(t, what);
        }
        return std::nullopt;
    }

    std::string_view text_;
    std::size_t position_ = 0;
    bool unterminated_ = false;
    std::string error_;
};

}  // namespace

RequirementParse parseRequirement(std::string_view text) { return Parser(text).parse(); }

}  // namespace korvo::platform::codesign
