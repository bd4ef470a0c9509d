// Property-list values: what requests carry and what snapshot files hold.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace korvo {

class Value;
using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;
using Dictionary = std::map<std::string, Value>;

// One property-list value. As with NSNumber, booleans, integers and reals are
// all numbers: they compare by value and convert into each other.
class Value {
public:
    enum class Type { String, Integer, Real, Boolean, Data, Array, Dictionary };

    Value() : storage_(std::string()) {}
    Value(std::string s) : storage_(std::move(s)) {}
    Value(std::string_view s) : storage_(std::string(s)) {}
    Value(const char* s) : storage_(std::string(s)) {}
    Value(bool b) : storage_(b) {}
    Value(int i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(unsigned i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(long i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(long long i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(unsigned long i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(unsigned long long i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(double d) : storage_(d) {}
    Value(korvo::Data d) : storage_(std::move(d)) {}
    Value(korvo::Array a) : storage_(std::move(a)) {}
    Value(korvo::Dictionary d) : storage_(std::move(d)) {}

    Type type() const { return static_cast<Type>(storage_.index()); }
    bool isString() const { return type() == Type::String; }
    bool isNumber() const;
    bool isData() const { return type() == Type::Data; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }

    // Typed access; nullptr when the value is of another type.
    const std::string* asString() const { return std::get_if<std::string>(&storage_); }
    const korvo::Data* asData() const { return std::get_if<korvo::Data>(&storage_); }
    const korvo::Array* asArray() const { return std::get_if<korvo::Array>(&storage_); }
    const korvo::Dictionary* asDictionary() const { return std::get_if<korvo::Dictionary>(&storage_); }
    korvo::Array* asArray() { return std::get_if<korvo::Array>(&storage_); }
    korvo::Dictionary* asDictionary() { return std::get_if<korvo::Dictionary>(&storage_); }

    // Numeric views of a number (boolean, integer or real); nullopt otherwise.
    std::optional<std::int64_t> integerValue() const;
    std::optional<double> doubleValue() const;
    std::optional<bool> boolValue() const;

    // The stored alternative itself, for code that must keep booleans and
    // integers apart (the property-list writer, the bus encoder).
    bool isBooleanStorage() const { return type() == Type::Boolean; }
    bool isRealStorage() const { return type() == Type::Real; }

    friend bool operator==(const Value& a, const Value& b);

private:
    std::variant<std::string, std::int64_t, double, bool, korvo::Data, korvo::Array, korvo::Dictionary> storage_;
};

bool operator==(const Value& a, const Value& b);

// Looks up key in a dictionary and returns its string, or nullopt when the key
// is absent or holds another type.
std::optional<std::string> stringForKey(const Dictionary& d, const std::string& key);

}  // namespace korvo
