#include "util/PropertyList.h"

#include <plist/plist.h>

#include <cstdlib>
#include <limits>
#include <memory>

namespace korvo {
namespace {

struct PlistDeleter {
    void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// Property lists from outside are bounded in nesting so that a hostile file
// cannot exhaust the stack.
constexpr int kMaxDepth = 512;

std::optional<Value> fromPlist(plist_t node, int depth) {
    if (depth > kMaxDepth) return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
    }
    case PLIST_UINT: {
        // libplist keeps integers unsigned; negative ones come back as 2^64-n.
        std::uint64_t u = 0;
        plist_get_uint_val(node, &u);
        return Value(static_cast<std::int64_t>(u));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        char* s = nullptr;
        if (plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &s);
        else plist_get_key_val(node, &s);
        std::string out = s ? s : "";
        std::free(s);
        return Value(std::move(out));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        std::uint64_t len = 0;
        plist_get_data_val(node, &bytes, &len);
        Data d(reinterpret_cast<std::uint8_t*>(bytes), reinterpret_cast<std::uint8_t*>(bytes) + len);
        std::free(bytes);
        return Value(std::move(d));
    }
    case PLIST_ARRAY: {
        Array a;
        const std::uint32_t n = plist_array_get_size(node);
        a.reserve(n);
        for (std::uint32_t i = 0; i < n; ++i) {
            auto item = fromPlist(plist_array_get_item(node, i), depth + 1);
            if (!item) return std::nullopt;
            a.push_back(std::move(*item));
        }
        return Value(std::move(a));
    }
    case PLIST_DICT: {
        Dictionary d;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) {
                std::free(key);
                break;
            }
            auto v = fromPlist(item, depth + 1);
            std::string k = key ? key : "";
            std::free(key);
            if (!v) {
                std::free(it);
                return std::nullopt;
            }
            d.insert_or_assign(std::move(k), std::move(*v));
        }
        std::free(it);
        return Value(std::move(d));
    }
    default: return std::nullopt;  // dates, UIDs and the like are not used by the helper
    }
}

plist_t toPlist(const Value& v) {
    switch (v.type()) {
    case Value::Type::String: return plist_new_string(v.asString()->c_str());
    case Value::Type::Boolean: return plist_new_bool(*v.boolValue() ? 1 : 0);
    case Value::Type::Integer: return plist_new_uint(static_cast<std::uint64_t>(*v.integerValue()));
    case Value::Type::Real: return plist_new_real(*v.doubleValue());
    case Value::Type::Data: {
        const Data& d = *v.asData();
        return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case Value::Type::Array: {
        plist_t a = plist_new_array();
        for (const Value& item : *v.asArray()) plist_array_append_item(a, toPlist(item));
        return a;
    }
    case Value::Type::Dictionary: {
        plist_t d = plist_new_dict();
        for (const auto& [key, item] : *v.asDictionary()) plist_dict_set_item(d, key.c_str(), toPlist(item));
        return d;
    }
    }
    return plist_new_string("");
}

}  // namespace

std::optional<Value> readPropertyList(std::string_view bytes) {
    if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) return std::nullopt;
    plist_t root = nullptr;
    if (plist_is_binary(bytes.data(), static_cast<std::uint32_t>(bytes.size())))
        plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    else
        plist_from_xml(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    if (!root) return std::nullopt;
    PlistPtr owner(root);
    return fromPlist(root, 0);
}

std::string writeXMLPropertyList(const Value& value) {
    PlistPtr root(toPlist(value));
    char* xml = nullptr;
    std::uint32_t len = 0;
    plist_to_xml(root.get(), &xml, &len);
    std::string out(xml ? xml : "", xml ? len : 0);
    plist_to_xml_free(xml);
    return out;
}

}  // namespace korvo
