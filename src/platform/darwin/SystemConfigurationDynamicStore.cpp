// macOS: the System Configuration dynamic store itself (SCDynamicStore), with
// property-list values converted to and from CoreFoundation types.
#include <CoreFoundation/CoreFoundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

#include <cstring>
#include <memory>
#include <type_traits>

#include "platform/DynamicStore.h"

namespace korvo::platform {
namespace {

struct CFReleaser {
    void operator()(CFTypeRef object) const {
        if (object) CFRelease(object);
    }
};
using CFHolder = std::unique_ptr<std::remove_pointer_t<CFTypeRef>, CFReleaser>;

CFStringRef makeString(const std::string& text) {
    return CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                                   static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
}

std::string stringFrom(CFStringRef string) {
    const CFIndex length = CFStringGetLength(string);
    const CFIndex size = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8) + 1;
    std::string out(static_cast<std::size_t>(size), '\0');
    if (!CFStringGetCString(string, out.data(), size, kCFStringEncodingUTF8)) return {};
    out.resize(std::strlen(out.c_str()));
    return out;
}

// A new CoreFoundation object for the value (the caller releases it).
CFTypeRef makeObject(const Value& value) {
    switch (value.type()) {
    case Value::Type::String: return makeString(*value.asString());
    case Value::Type::Boolean: return CFRetain(*value.boolValue() ? kCFBooleanTrue : kCFBooleanFalse);
    case Value::Type::Integer: {
        const long long n = *value.integerValue();
        return CFNumberCreate(kCFAllocatorDefault, kCFNumberLongLongType, &n);
    }
    case Value::Type::Real: {
        const double d = *value.doubleValue();
        return CFNumberCreate(kCFAllocatorDefault, kCFNumberDoubleType, &d);
    }
    case Value::Type::Data:
        return CFDataCreate(kCFAllocatorDefault, value.asData()->data(), static_cast<CFIndex>(value.asData()->size()));
    case Value::Type::Array: {
        CFMutableArrayRef array = CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks);
        for (const auto& item : *value.asArray()) {
            const CFHolder element(makeObject(item));
            CFArrayAppendValue(array, element.get());
        }
        return array;
    }
    case Value::Type::Dictionary: {
        CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
            kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
        for (const auto& [key, item] : *value.asDictionary()) {
            const CFHolder k(makeString(key)), v(makeObject(item));
            CFDictionarySetValue(dictionary, k.get(), v.get());
        }
        return dictionary;
    }
    }
    return nullptr;
}

std::optional<Value> valueFrom(CFTypeRef object) {
    const CFTypeID type = CFGetTypeID(object);
    if (type == CFStringGetTypeID()) return Value(stringFrom(static_cast<CFStringRef>(object)));
    if (type == CFBooleanGetTypeID()) return Value(CFBooleanGetValue(static_cast<CFBooleanRef>(object)) != 0);
    if (type == CFNumberGetTypeID()) {
        const auto number = static_cast<CFNumberRef>(object);
        if (CFNumberIsFloatType(number)) {
            double d = 0;
            CFNumberGetValue(number, kCFNumberDoubleType, &d);
            return Value(d);
        }
        long long n = 0;
        CFNumberGetValue(number, kCFNumberLongLongType, &n);
        return Value(n);
    }
    if (type == CFDataGetTypeID()) {
        const auto data = static_cast<CFDataRef>(object);
        const UInt8* bytes = CFDataGetBytePtr(data);
        return Value(Data(bytes, bytes + CFDataGetLength(data)));
    }
    if (type == CFArrayGetTypeID()) {
        const auto array = static_cast<CFArrayRef>(object);
        Array out;
        for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
            if (auto item = valueFrom(CFArrayGetValueAtIndex(array, i))) out.push_back(std::move(*item));
        }
        return Value(std::move(out));
    }
    if (type == CFDictionaryGetTypeID()) {
        const auto dictionary = static_cast<CFDictionaryRef>(object);
        Dictionary out;
        CFDictionaryApplyFunction(
            dictionary,
            [](const void* key, const void* item, void* context) {
                if (CFGetTypeID(key) != CFStringGetTypeID()) return;
                if (auto value = valueFrom(item)) {
                    (*static_cast<Dictionary*>(context))[stringFrom(static_cast<CFStringRef>(key))] = std::move(*value);
                }
            },
            &out);
        return Value(std::move(out));
    }
    return std::nullopt;
}

KorvoError storeError() {
    return errorWithKorvoErrorCode(kGeneralErrorCode, std::string(SCErrorString(SCError())));
}

class SCSession final : public DynamicStoreSession {
public:
    explicit SCSession(SCDynamicStoreRef store) : store_(store) {}

    std::optional<Dictionary> copyValue(const std::string& key) override {
        const CFHolder k(makeString(key));
        const CFHolder value(SCDynamicStoreCopyValue(store(), static_cast<CFStringRef>(k.get())));
        if (!value) return std::nullopt;
        auto converted = valueFrom(value.get());
        if (!converted || !converted->asDictionary()) return std::nullopt;
        return *converted->asDictionary();
    }

    MaybeError setValue(const std::string& key, const Dictionary& value) override {
        const CFHolder k(makeString(key)), v(makeObject(Value(value)));
        if (SCDynamicStoreSetValue(store(), static_cast<CFStringRef>(k.get()), v.get())) return std::nullopt;
        return storeError();
    }

    MaybeError removeValue(const std::string& key) override {
        const CFHolder k(makeString(key));
        if (SCDynamicStoreRemoveValue(store(), static_cast<CFStringRef>(k.get()))) return std::nullopt;
        // A key that has no value is already removed.
        if (SCError() == kSCStatusNoKey) return std::nullopt;
        return storeError();
    }

private:
    SCDynamicStoreRef store() const { return static_cast<SCDynamicStoreRef>(const_cast<void*>(store_.get())); }
    CFHolder store_;
};

class SystemConfigurationDynamicStore final : public DynamicStore {
public:
    std::unique_ptr<DynamicStoreSession> openSession(std::string_view sessionName, std::string* failure) override {
        const CFHolder name(makeString(std::string(sessionName)));
        SCDynamicStoreRef store =
            SCDynamicStoreCreate(kCFAllocatorDefault, static_cast<CFStringRef>(name.get()), nullptr, nullptr);
        if (!store) {
            if (failure) *failure = SCErrorString(SCError());
            return nullptr;
        }
        return std::make_unique<SCSession>(store);
    }
};

}  // namespace

std::shared_ptr<DynamicStore> makeSystemDynamicStore(std::shared_ptr<const StoreArea>) {
    return std::make_shared<SystemConfigurationDynamicStore>();
}

}  // namespace korvo::platform
