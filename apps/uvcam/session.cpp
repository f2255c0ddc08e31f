#include "apps/uvcam/session.h"

#include "apps/uvcam/exit_code.h"
#include "apps/uvcam/settings_file.h"

#include <cstdio>

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);

namespace uvcam {

namespace {

void PrintDriverText(std::string_view text) {
    std::fprintf(stderr, "%.*s%s", static_cast<int>(text.size()), text.data(), text.ends_with('\n') ? "" : "\n");
}

std::shared_ptr<host::cameras::SimulatedCamera> FindCamera(const SessionOptions &options) {
    std::string reason;
    bool optionsAreWrong = false;
    auto camera = host::cameras::MakeCamera(options.camera, reason, &optionsAreWrong);
    if (camera == nullptr)
        throw Failure(optionsAreWrong ? ExitCode::Usage : ExitCode::NoSuchCamera, reason);
    if (!options.scene.empty() && !camera->SetScene(options.scene, reason))
        throw Failure(ExitCode::Failed, reason);
    camera->SetFreeRun(options.freeRun);
    return camera;
}

host::client::ComputerOptions Boot(const SessionOptions &options) {
    host::client::ComputerOptions boot;
    boot.runtime.clock = host::ClockKind::Real;
    boot.runtime.registryFile = SettingsFile(options.settings);
    boot.runtime.onDebugPrint = PrintDriverText;
    if (options.maximumTransfer)
        boot.plug.maximumTransferSize = *options.maximumTransfer;
    if (!options.faults.empty()) {
        std::string reason;
        auto plan = host::FaultPlan::Parse(options.faults, reason);
        if (!plan)
            throw Failure(ExitCode::Usage, "--fault " + options.faults + ": " + reason);
        boot.runtime.faults = *plan;
    }
    return boot;
}

} // namespace

Session::Session(const SessionOptions &options) : name_(options.camera), freeRun_(options.freeRun) {
    const host::client::ComputerOptions boot = Boot(options); // a bad plan is a usage error, whatever the camera
    camera_ = FindCamera(options);
    computer_ = std::make_unique<host::client::Computer>(DriverEntry, boot);
    Require(computer_->PlugIn(camera_), "the driver does not start on it");
    std::vector<std::u16string> links;
    Require(host::client::FindCaptureFilters(links), "cannot look for its filter");
    Require(links.empty() ? STATUS_NO_SUCH_DEVICE : filter_.Open(links.front()), "cannot open its filter");
}

void Session::Require(NTSTATUS status, const std::string &what) {
    if (NT_SUCCESS(status))
        return;
    RequireConnected("by now (" + what + ": " + StatusName(status) + ")");
    throw StatusFailure(name_ + ": " + what, status);
}

void Session::RequireConnected(const std::string &when) {
    if (!computer_->IsConnected())
        throw Failure(ExitCode::DeviceLost, name_ + " is gone " + when);
}

} // namespace uvcam
