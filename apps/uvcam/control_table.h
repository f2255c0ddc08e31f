// The controls by the names that people use for them.
#pragma once

#include "host/client/control.h"

#include <span>
#include <string>
#include <string_view>

namespace uvcam {

enum class ControlKind {
    Number,
    Switch,  // value 0 or 1
    Action,  // any value starts something; what is read tells whether it is still going on
    Trigger, // a switch in the flags: on while bit 2 is clear
    Pulse,   // an action in the flags: bit 3 starts it
};

// When a control has no effect: while another one is in this state. A camera without the other one has no such state.
struct Inactivity {
    enum State { Never, Automatic, Manual, On, Off };
    const char *other = "";
    State state = Never;
};

struct ControlRow {
    const char *name; // that of the settings in the registry, where the control has one there
    host::client::ControlId control;
    ControlKind kind = ControlKind::Number;
    const char *unit = ""; // empty: none that the standard or the driver gives
    Inactivity inactive[2] = {};
    const char *twin = "";  // the same in another unit, which tells whether there is an automatic where this does not
    bool writeOnly = false; // on some cameras; elsewhere what cannot be read is not there
    // In force again in the next run: the driver keeps the settings of its registry table, and no others.
    bool kept = false;
    // The driver's own, whatever the camera: the others live in the camera, which may refuse to have them set.
    bool inDriver = false;
    // Given up by the camera when a stream starts.
    bool streamOnly = false;
};

// In the order of the property sets.
std::span<const ControlRow> ControlTable();

// By its name, whatever the case of its letters and with or without blanks and underscores. Null when there is none.
const ControlRow *FindControl(std::string_view name);

// Throws Failure (Usage) for an unknown name, with the one that was probably meant.
const ControlRow &RequireControl(std::string_view name);

// "PROPSETID_VIDCAP_VIDEOPROCAMP", ...
const char *SetNameOf(const ControlRow &row);

} // namespace uvcam
