// Suppression of network diagnostics captures while a network reset runs: a
// reset brackets its work with begin and end, and captures that fall inside
// are skipped. Nesting is counted; the count never goes below zero.
#pragma once

namespace korvo {

class CaptureSuppression {
public:
    virtual ~CaptureSuppression() = default;

    virtual void beginNetworkDiagnosticsSuppression() = 0;
    virtual void endNetworkDiagnosticsSuppression() = 0;
    // Stops the periodic capture if it runs; called when a reset begins.
    virtual void stopPeriodicCaptureIfNeeded() = 0;
};

}  // namespace korvo
