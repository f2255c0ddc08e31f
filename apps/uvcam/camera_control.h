// The controls of an opened camera: what they are now, and setting several of them.
#pragma once

#include "apps/uvcam/control_table.h"
#include "apps/uvcam/session.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace uvcam {

struct CameraControl {
    const ControlRow *row;
    host::client::ControlRange range;
    NTSTATUS status;                      // of reading it
    host::client::ControlSetting setting; // zeros unless the status is success

    bool IsAutomatic() const;
    // Only an automatic to switch: the driver balances colours by gains, not by a temperature.
    bool HasNoValue() const { return setting.capabilities == UVC_CONTROL_AUTOMATIC; }
    bool IsReadOnly() const { return (range.access & KSPROPERTY_TYPE_SET) == 0; }
    // As people see it: the switch of a Trigger, else the value. Nothing when there is none or it could not be read.
    std::optional<LONG> Value() const;
};

// Nothing when the camera does not have the control.
std::optional<CameraControl> ReadControl(Session &session, const ControlRow &row);

// Throws Failure (NotOffered) when the camera does not have the control, or that of the driver when it cannot be read.
CameraControl RequireReadable(Session &session, const ControlRow &row);

// "333", "on"; "?" when it could not be read, "-" when there is none.
std::string ValueText(const CameraControl &control);
// "Exposure=333", "Exposure=333 auto", "ColorMatrixEnable=on", "WhiteBalance=auto".
std::string TextOf(const CameraControl &control);

// One NAME=VALUE, NAME=on, NAME=off, NAME=auto or NAME=manual.
struct Assignment {
    const ControlRow *row;
    enum Mode { Value, Automatic, Manual } mode;
    LONG value;
};

// Throws Failure (Usage) for an unknown name or a value that makes no sense.
std::vector<Assignment> ParseAssignments(const std::vector<std::string> &texts);

// Throws Failure for the first that the camera has no place for. Sends nothing.
void Check(Session &session, const std::vector<Assignment> &assignments);

// Sets one after the other. The first failure, thrown, ends that: what comes behind it is not set. A control that is
// something else afterwards gets a line on stderr. `onSet` is called with every control, read back.
void Apply(Session &session, const std::vector<Assignment> &assignments,
           const std::function<void(const CameraControl &)> &onSet = {});

} // namespace uvcam
