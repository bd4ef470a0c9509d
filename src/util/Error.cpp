#include "util/Error.h"

#include <cerrno>
#include <cstring>

#include "util/Format.h"

namespace korvo {
namespace {

constexpr std::int64_t kLastKorvoErrorCode = 74;

// Index = code. nullptr marks the codes without a description (60, 72); code
// 54 is assembled from kSingleDESPrefix and the knowledge-base address.
constexpr const char* kDescriptions[kLastKorvoErrorCode + 1] = {
    /* 0 */ "No Error.",
    /* 1 */ "A general error occured. Please get in contact with the support from Pembrant.",
    /* 2 */ "There seems to be a problem with your account configuration. Please try again with a modified configuration.",
    /* 3 */ "Korvo was unable to read the account, or the account has missing or incorrect information.",
    /* 4 */ "Korvo has experienced a communications failure. Please check your network connections and already running VPN applications.",
    /* 5 */ "Korvo was unable to allocate some system resources and can not proceed.",
    /* 6 */ "The Cisco VPN Service is not running.",
    /* 7 */ "The Cisco VPN Service is shutting down.",
    /* 8 */ "No network connection exists.",
    /* 9 */ "A connection is already in the process of being established.",
    /* 10 */ "A connection already exists.",
    /* 11 */ "Connection attempt aborted.",
    /* 12 */ "A required component PPPTool.exe is not present among the installed client software.",
    /* 13 */ "Driver Failure. Please check your network configuration and installed device drivers.",
    /* 14 */ "No more Backup Servers available.",
    /* 15 */ "Failed to establish a connection to your ISP.",
    /* 16 */ "Failed to establish a TCP connection.",
    /* 17 */ "Failed to establish a VPN connection.",
    /* 18 */ "Unable to resolve server address. Please check your internet connection or try to use the network diagnostics.",
    /* 19 */ "Authentication cancelled by user.",
    /* 20 */ "Failed to renegotiate the VPN connection.",
    /* 21 */ "Remote peer is no longer responding.",
    /* 22 */ "Remote peer is load balancing.",
    /* 23 */ "Failed to establish a VPN connection. Check your group settings and/or certificates.",
    /* 24 */ "Failed to establish a VPN connection. (Duplicate exists)",
    /* 25 */ "The remote peer does not support the required VPN client protocol. Contact your system administrator.",
    /* 26 */ "User authentication failed. Please check the provided username and password and try again.",
    /* 27 */ "The required firewall software is no longer running.",
    /* 28 */ "Unable to configure the firewall software.",
    /* 29 */ "Certificate update failed.",
    /* 30 */ "Lost contact with the security gateway. Check your network connection.",
    /* 31 */ "User authentication failed.",
    /* 32 */ "Connectivity to Client Lost by Peer.",
    /* 33 */ "Manually Disconnected by Administrator.",
    /* 34 */ "Maximum Configured SA Lifetime Exceeded.",
    /* 35 */ "Peer has been Shut Down.",
    /* 36 */ "Unknown Severe Error Occurred at Peer.",
    /* 37 */ "Configured Maximum Connection Time Exceeded.",
    /* 38 */ "Configured Maximum Idle Time for Session Exceeded.",
    /* 39 */ "Peer has been Rebooted.",
    /* 40 */ "Policy Negotiation Failed.",
    /* 41 */ "Firewall Policy Mismatch.",
    /* 42 */ "Certificates used with this Connection Entry have Expired.",
    /* 43 */ "Peer Platform Type or Version Not Allowed.",
    /* 44 */ "Peer Failed to contact Zone Integrity Server.",
    /* 45 */ "Unknown Error Occurred at Peer.",
    /* 46 */ "(Reason Not Specified by Peer)",
    /* 47 */ "Autoupdate Shutdown",
    /* 48 */ "Failed to enable Virtual Adapter.",
    /* 49 */ "Smart Card has been removed.",
    /* 50 */ "Korvo could not find the required API. Please install the latest version of the required software or contact the developer of Korvo.",
    /* 51 */ "Korvo could not find the required API. Please install the latest version of the required software or contact the developer of Korvo.",
    /* 52 */ "Korvo could not find the required certificates for this connection or it is invalid. Please check your account settings and try again.",
    /* 53 */ "Korvo could not find the specified key file for this connection or it is invalid. Please check your account settings and try again.",
    /* 54 */ "",
    /* 55 */ "Korvo encountered a general problem with its helper utility.",
    /* 56 */ "SSH identity file could not be validated.",
    /* 57 */ "Connection script could not be written.",
    /* 58 */ "There was a general problem with the VPN protocol's API.",
    /* 59 */ "Could not write the required config file.",
    /* 60 */ nullptr,
    /* 61 */ "Korvo could not open socket for ESP. Please try to use a different NAT mode for your account.",
    /* 62 */ "Korvo could not find a file required for the requested operation.",
    /* 63 */ "The IPSec service 'racoon' could not be found.",
    /* 64 */ "At least one of the provided parameters for this operation is invalid.",
    /* 65 */ "Korvo failed to terminate a process.",
    /* 66 */ "Korvo was unable to setup the configured routing configuration.",
    /* 67 */ "Cleaning the list of known and trusted SSH hosts failed.",
    /* 68 */ "Korvo was unable to launch a required executable.",
    /* 69 */ "Korvo failed to launch an executable due to an invalid signature. Your system might be compromised.",
    /* 70 */ "Korvo was unable to run a script, which is required to perform the requested operation.",
    /* 71 */ "The remote server asked to run a hostscan on your computer. Please enable this scan through 'Cisco Secure Desktop' (CSD) for this account and try again.",
    /* 72 */ nullptr,
    /* 73 */ "Apple decided to discontinue support for OpenVPN connections using a 'tap' network interface. Consequently, Korvo does not support these types of VPN connections.",
    /* 74 */ "Your network configuration was mostly reset, but a VPN process could not be fully cleaned up. If you still experience issues, please restart your computer.",
};

constexpr const char* kSingleDESPrefix =
    "Peer selected 'Single DES' as encrytion method. This algorithm is considered too weak today. If you still "
    "want to use it, enable 'Single DES' for your account. If you don't know how to do this, please have a look "
    "at our Knowledge Base at";

}  // namespace

std::optional<std::string> localizedDescriptionForKorvoErrorCode(std::int64_t code) {
    // Compared as unsigned, so that every negative code lies above the table.
    if (static_cast<std::uint64_t>(code) > static_cast<std::uint64_t>(kLastKorvoErrorCode)) return std::nullopt;
    if (code == 54) return std::string(kSingleDESPrefix) + " " + std::string(KorvoKnowledgeBaseURL) + ".";
    const char* text = kDescriptions[code];
    if (text == nullptr) return std::nullopt;
    return std::string(text);
}

KorvoError errorWithKorvoErrorCode(std::int64_t code) { return errorWithKorvoErrorCode(code, std::nullopt); }

KorvoError errorWithKorvoErrorCode(std::int64_t code, const std::optional<std::string>& message) {
    return errorWithKorvoErrorCode(code, message, std::nullopt);
}

KorvoError errorWithKorvoErrorCode(std::int64_t code, const std::optional<std::string>& message,
                                   const std::optional<Dictionary>& userInfo) {
    std::optional<std::string> description = localizedDescriptionForKorvoErrorCode(code);
    if (message) description = description ? *description + "\n\n" + *message : *message;

    Dictionary info = userInfo.value_or(Dictionary{});
    if (description) info[std::string(LocalizedDescriptionKey)] = *description;

    KorvoError error{std::string(KorvoErrorDomain), code, std::nullopt};
    if (!info.empty()) error.userInfo = std::move(info);
    return error;
}

std::optional<std::string> KorvoError::localizedDescription() const {
    if (!userInfo) return std::nullopt;
    return stringForKey(*userInfo, std::string(LocalizedDescriptionKey));
}

std::string KorvoError::displayText() const {
    if (auto d = localizedDescription()) return *d;
    return formatString("The operation couldn't be completed. (%s error %lld.)", domain.c_str(),
                        static_cast<long long>(code));
}

Dictionary KorvoError::toDictionary() const {
    Dictionary d{{"domain", domain}, {"code", code}, {"description", displayText()}};
    d["userInfo"] = userInfo.value_or(Dictionary{});
    return d;
}

std::optional<KorvoError> KorvoError::fromDictionary(const Dictionary& d) {
    auto domain = stringForKey(d, "domain");
    auto codeIt = d.find("code");
    if (!domain || codeIt == d.end() || !codeIt->second.integerValue()) return std::nullopt;
    KorvoError error{*domain, *codeIt->second.integerValue(), std::nullopt};
    auto infoIt = d.find("userInfo");
    if (infoIt != d.end() && infoIt->second.asDictionary() && !infoIt->second.asDictionary()->empty())
        error.userInfo = *infoIt->second.asDictionary();
    return error;
}

namespace {

// Foundation's file error codes (NSFileNoSuchFileError and friends).
enum : std::int64_t {
    kFileNoSuchFile = 4,
    kFileReadUnknown = 256,
    kFileReadNoPermission = 257,
    kFileReadInvalidFileName = 258,
    kFileReadNoSuchFile = 260,
    kFileWriteUnknown = 512,
    kFileWriteNoPermission = 513,
    kFileWriteInvalidFileName = 514,
    kFileWriteFileExists = 516,
    kFileWriteOutOfSpace = 640,
    kFileWriteVolumeReadOnly = 642,
};

std::int64_t cocoaFileCode(int err, FileOperation operation) {
    const bool reading = operation == FileOperation::Read || operation == FileOperation::ListDirectory;
    switch (err) {
    case ENOENT:
    case ENOTDIR: return reading ? kFileReadNoSuchFile : kFileNoSuchFile;
    case EACCES:
    case EPERM: return reading ? kFileReadNoPermission : kFileWriteNoPermission;
    case ENAMETOOLONG: return reading ? kFileReadInvalidFileName : kFileWriteInvalidFileName;
    case EEXIST: return reading ? kFileReadUnknown : kFileWriteFileExists;
    case ENOSPC:
    case EDQUOT: return reading ? kFileReadUnknown : kFileWriteOutOfSpace;
    case EROFS: return reading ? kFileReadUnknown : kFileWriteVolumeReadOnly;
    default: return reading ? kFileReadUnknown : kFileWriteUnknown;
    }
}

std::string fileDescription(std::int64_t code, FileOperation operation, std::string_view path) {
    std::string name(path);
    if (auto slash = name.find_last_of('/'); slash != std::string::npos && slash + 1 < name.size())
        name = name.substr(slash + 1);
    const char* verb = "couldn't be saved";
    switch (operation) {
    case FileOperation::Read:
    case FileOperation::ListDirectory: verb = "couldn't be opened"; break;
    case FileOperation::Remove: verb = "couldn't be removed"; break;
    case FileOperation::SetAttributes: verb = "couldn't be changed"; break;
    case FileOperation::Write:
    case FileOperation::CreateDirectory: break;
    }
    switch (code) {
    case kFileNoSuchFile:
    case kFileReadNoSuchFile: return formatString("The file \"%s\" %s because there is no such file.", name.c_str(), verb);
    case kFileReadNoPermission:
    case kFileWriteNoPermission:
        return formatString("The file \"%s\" %s because you don't have permission to access it.", name.c_str(), verb);
    case kFileWriteOutOfSpace: return formatString("The file \"%s\" %s because the volume is out of space.", name.c_str(), verb);
    case kFileWriteVolumeReadOnly: return formatString("The file \"%s\" %s because the volume is read only.", name.c_str(), verb);
    case kFileWriteFileExists: return formatString("The file \"%s\" %s because a file with the same name already exists.", name.c_str(), verb);
    default: return formatString("The file \"%s\" %s.", name.c_str(), verb);
    }
}

}  // namespace

KorvoError fileSystemError(int posixErrno, FileOperation operation, std::string_view path) {
    const std::int64_t code = cocoaFileCode(posixErrno, operation);
    Dictionary underlying{{"domain", std::string(POSIXErrorDomain)},
                          {"code", static_cast<std::int64_t>(posixErrno)},
                          {"description", std::string(std::strerror(posixErrno))}};
    Dictionary info{{std::string(LocalizedDescriptionKey), fileDescription(code, operation, path)},
                    {std::string(FilePathErrorKey), std::string(path)},
                    {std::string(UnderlyingErrorKey), underlying}};
    return KorvoError{std::string(CocoaErrorDomain), code, std::move(info)};
}

}  // namespace korvo
