#include "util/Value.h"

#include <cmath>

namespace korvo {

bool Value::isNumber() const {
    auto t = type();
    return t == Type::Integer || t == Type::Real || t == Type::Boolean;
}

std::optional<std::int64_t> Value::integerValue() const {
    switch (type()) {
    case Type::Integer: return std::get<std::int64_t>(storage_);
    case Type::Boolean: return std::get<bool>(storage_) ? 1 : 0;
    case Type::Real: {
        double d = std::get<double>(storage_);
        if (std::isnan(d)) return 0;
        if (d >= 9.2233720368547758e18) return INT64_MAX;
        if (d <= -9.2233720368547758e18) return INT64_MIN;
        return static_cast<std::int64_t>(d);
    }
    default: return std::nullopt;
    }
}

std::optional<double> Value::doubleValue() const {
    switch (type()) {
    case Type::Integer: return static_cast<double>(std::get<std::int64_t>(storage_));
    case Type::Boolean: return std::get<bool>(storage_) ? 1.0 : 0.0;
    case Type::Real: return std::get<double>(storage_);
    default: return std::nullopt;
    }
}

std::optional<bool> Value::boolValue() const {
    switch (type()) {
    case Type::Integer: return std::get<std::int64_t>(storage_) != 0;
    case Type::Boolean: return std::get<bool>(storage_);
    case Type::Real: return std::get<double>(storage_) != 0.0;
    default: return std::nullopt;
    }
}

bool operator==(const Value& a, const Value& b) {
    if (a.isNumber() && b.isNumber()) {
        if (a.isRealStorage() || b.isRealStorage()) return *a.doubleValue() == *b.doubleValue();
        return *a.integerValue() == *b.integerValue();
    }
    return a.storage_ == b.storage_;
}

std::optional<std::string> stringForKey(const Dictionary& d, const std::string& key) {
    auto it = d.find(key);
    if (it == d.end()) return std::nullopt;
    if (const auto* s = it->second.asString()) return *s;
    return std::nullopt;
}

}  // namespace korvo
