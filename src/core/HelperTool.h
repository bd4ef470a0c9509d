// KorvoHelperTool: the helper's one service object. Every request of the
// client arrives as a call of one of its request methods; settings made
// through the setters last for the life of the process and are shared by all
// clients.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "diagnostics/NetworkDiagnostics.h"
#include "util/Bundle.h"
#include "util/Error.h"
#include "platform/CodeSigning.h"
#include "process/CallerFiles.h"
#include "process/Executables.h"
#include "util/UniqueFd.h"
#include "process/StartedProcesses.h"
#include "util/StoreArea.h"
#include "util/Value.h"

namespace korvo {

class CSCapturedProcessOutput;
class SerialQueue;
class WorkerPool;

namespace platform {
class ServiceListener;
class ServiceListenerDelegate;
class TunnelInterfaceConfigurator;
}  // namespace platform

using ErrorReply = std::function<void(const MaybeError&)>;
using PidReply = std::function<void(const MaybeError&, std::int32_t pid)>;
using StringReply = std::function<void(const MaybeError&, const std::optional<std::string>&)>;
using Environment = std::map<std::string, std::string>;

inline constexpr std::string_view HelperServiceName = "com.tallowmar.korvo.utility";
inline constexpr std::string_view KorvoApplicationIdentifier = "com.tallowmar.Korvo";
inline constexpr std::string_view KorvoRunDirectory = "/var/run/Korvo";

// The platform services the service object uses. production() gives the real
// ones; tests replace single services or leave the listener out.
struct HelperServices {
    std::shared_ptr<platform::CodeSigning> codeSigning;
    std::shared_ptr<platform::TunnelInterfaceConfigurator> tunnelInterfaces;
    // Creates the listener for the named service; null: the tool runs without
    // one (a unit test driving the request methods directly).
    std::function<std::unique_ptr<platform::ServiceListener>(std::string_view serviceName,
                                                             platform::ServiceListenerDelegate& delegate)>
        makeListener;
    // Finds the client application's bundle path; nullopt when none is installed.
    std::function<std::optional<std::string>()> locateApplicationBundle;
    // The run directory and the helper's own store directories beneath it;
    // null: none (a unit test that touches no helper state).
    std::shared_ptr<StoreArea> storeArea;
    // The periodic diagnostics capture's schedule (a test daemon shortens it).
    TimerSchedule networkDiagnosticsPeriodicSchedule{std::chrono::seconds(30), std::chrono::seconds(30),
                                                     std::chrono::seconds(5)};

    // The real services: the platform's code signing and tunnel interfaces,
    // the bus listener, the desktop's application lookup.
    static HelperServices production();
};

class KorvoHelperTool {
public:
    // init: sets the defaults, loads persisted state and creates the listener.
    explicit KorvoHelperTool(HelperServices services = HelperServices::production());
    ~KorvoHelperTool();
    KorvoHelperTool(const KorvoHelperTool&) = delete;
    KorvoHelperTool& operator=(const KorvoHelperTool&) = delete;

    // Resumes the listener and serves requests until terminateWithReply, which
    // ends the process with status 0. A listener that cannot be resumed ends
    // it with status 1.
    void run();

    // --- Requests without a reply -------------------------------------------
    void setKorvoBundlePath(const std::optional<std::string>& path);
    void setTmpDirPath(const std::optional<std::string>& path);
    // The log is written with the rights of the caller who named it.
    void setNetworkDiagnosticsCaptureEnabled(bool enabled, const std::optional<std::string>& logFilePath,
                                             const std::optional<CallerRights>& caller);
    void setVPNDebugLoggingEnabled(bool enabled);
    void networkDiagnosticsConnectionEstablishedForServiceType(std::int64_t serviceType,
                                                               const std::optional<std::string>& accountDescription);
    void networkDiagnosticsConnectionTerminatedForServiceType(std::int64_t serviceType,
                                                              const std::optional<std::string>& accountDescription);

    // --- Requests with a reply ----------------------------------------------
    // Logs, replies, and ends the process with status 0: at once before run,
    // else through run, which first stops the listener.
    void terminateWithReply(ErrorReply reply);

    void connectOpenVPNWithConfig(const std::optional<std::string>& configPath, std::uint64_t managementPort,
                                  StringReply reply);
    void connectVPNCWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort, PidReply reply);
    void connectSSHWithConfig(const std::optional<std::string>& configPath, const std::optional<std::string>& host,
                              const std::optional<std::string>& credentials, std::uint64_t comPort, PidReply reply);
    void connectOpenConnectWithConfig(const std::optional<std::string>& configPath,
                                      const std::optional<std::string>& host,
                                      const std::optional<std::string>& resolve,
                                      const std::optional<std::string>& credentials,
                                      const std::optional<std::string>& hash, std::uint64_t comPort,
                                      PidReply reply);
    void connectWireGuardWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                    PidReply reply);
    void connectAmneziaWGWithConfig(const std::optional<std::string>& configPath, std::uint64_t comPort,
                                    PidReply reply);
    // The shared WireGuard-family procedure behind the two requests above.
    void connectWireGuardVariantWithConfig(const std::optional<std::string>& configPath,
                                           const std::string& userspaceExecutableName,
                                           const std::string& controlExecutableName,
                                           const std::string& displayName, const std::string& uapiDirectory,
                                           std::uint64_t comPort, PidReply reply);

    // --- Process runner -------------------------------------------------------
    // Starts the executable at path after checking its signature; returns the
    // child's process identifier, or -1 with *error set (when error is given).
    // The file is opened once (openExecutableForLaunch) and the child started
    // from that descriptor. standardInputText, when given, is the child's
    // whole standard input (instead of the com port's).
    pid_t runServiceAtPath(const std::optional<std::string>& path,
                           const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort,
                           bool waitUntilExit, const std::optional<Environment>& additionalEnvironment,
                           std::shared_ptr<CSCapturedProcessOutput>* capturedOutput, MaybeError* error,
                           const std::optional<std::string>& standardInputText = std::nullopt);
    pid_t runServiceAtPath(const std::optional<std::string>& path,
                           const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort,
                           bool waitUntilExit, const std::optional<Environment>& additionalEnvironment,
                           MaybeError* error);
    pid_t runServiceAtPath(const std::optional<std::string>& path,
                           const std::optional<std::vector<std::string>>& arguments, std::uint64_t comPort,
                           bool waitUntilExit, MaybeError* error);
    // The same for one of the helper's own system tools.
    pid_t runSystemTool(SystemTool tool, const std::optional<std::vector<std::string>>& arguments,
                        std::uint64_t comPort, bool waitUntilExit,
                        const std::optional<Environment>& additionalEnvironment,
                        std::shared_ptr<CSCapturedProcessOutput>* capturedOutput, MaybeError* error);
    // The program at path opened for starting it (openProgramFile) when that
    // open file satisfies KorvoProgramRequirement; invalid otherwise. Start
    // it from this descriptor (ChildProcess::Options::executableDescriptor).
    UniqueFd openExecutableForLaunch(const std::string& path);
    // The same for a system tool, which may also be an unsigned system
    // executable.
    UniqueFd openSystemToolForLaunch(SystemTool tool);
    // A connected TCP socket to the client's com port on this host (the
    // caller owns the descriptor), or -1.
    int openSocketOnPort(std::uint64_t port);
    bool killProcessWithID(pid_t pid, int signal);
    platform::CodeSignState codeSignStateForExecutable(const std::string& path);

    // --- Backend helpers shared by several backends ---------------------------
    Environment opensslLegacyProviderEnvironment();
    static bool configFileAtPath(const std::string& path, const std::string& directive);

    // --- Fields -----------------------------------------------------------------
    // Empty after the client has set nil.
    std::string tmpDirPath() const;
    std::optional<Bundle> korvoBundle() const;
    bool vpnDebugLoggingEnabled() const;
    // Diagnostics capture and log; also what a network reset suppresses.
    NetworkDiagnostics& networkDiagnostics() { return *networkDiagnostics_; }
    SerialQueue& networkResetQueue() { return *networkResetQueue_; }
    platform::ServiceListener* listener() const { return listener_.get(); }
    const HelperServices& services() const { return services_; }
    // The programs the helper started and the links they made: the only
    // ones it will ever signal or delete.
    StartedProcesses& startedProcesses() { return *startedProcesses_; }

    // The service object's own lock: guards the fields below and the
    // transaction store. Never held across a slow operation.
    std::recursive_mutex& objectLock() const { return objectLock_; }

private:
    HelperServices services_;

    mutable std::recursive_mutex objectLock_;
    std::optional<std::string> tmpDirPath_;
    std::optional<Bundle> korvoBundle_;
    std::map<std::string, Dictionary> networkTransactions_;
    // The threads the two queues below run on.
    std::shared_ptr<WorkerPool> queuePool_;
    std::unique_ptr<NetworkDiagnostics> networkDiagnostics_;
    std::unique_ptr<SerialQueue> networkResetQueue_;
    std::unique_ptr<StartedProcesses> startedProcesses_;
    bool vpnDebugLoggingEnabled_ = false;

    std::unique_ptr<platform::ServiceListenerDelegate> listenerDelegate_;
    std::unique_ptr<platform::ServiceListener> listener_;

    // run() blocks on this until terminateWithReply asks it to stop.
    std::mutex runMutex_;
    std::condition_variable runCondition_;
    bool running_ = false;
    bool stopRequested_ = false;
    bool listenerFailed_ = false;  // run() then ends the process with status 1

    friend class HelperToolListenerDelegate;
    void listenerDidFail(const std::string& reason);
    NetworkDiagnosticsServices networkDiagnosticsServices();
};

}  // namespace korvo
