#include "apps/uvcam/camera_control.h"

#include "apps/uvcam/exit_code.h"

#include <charconv>
#include <cstdio>

namespace uvcam {

namespace {

using host::client::ControlSetting;

// Flags of the two triggers.
constexpr ULONG kTriggerModes = 7;
constexpr ULONG kTriggerOff = 4;
constexpr ULONG kTriggerPulse = 8;

bool IsSwitch(const ControlRow &row) {
    return row.kind != ControlKind::Number;
}

std::optional<LONG> ParseNumber(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal)
        text.remove_prefix(2);
    LONG value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || (hexadecimal && text.starts_with('-')))
        return {};
    return value;
}

Assignment ParseAssignment(const std::string &text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        throw Failure(ExitCode::Usage, "expected NAME=VALUE, not " + text);
    const ControlRow &row = RequireControl(text.substr(0, equals));
    const std::string wish = text.substr(equals + 1);
    if (wish == "auto")
        return {&row, Assignment::Automatic, 0};
    if (wish == "manual")
        return {&row, Assignment::Manual, 0};
    if (IsSwitch(row) && (wish == "on" || wish == "off"))
        return {&row, Assignment::Value, wish == "on"};
    const std::optional<LONG> value = ParseNumber(wish);
    const bool isFlag = row.kind == ControlKind::Trigger || row.kind == ControlKind::Pulse;
    if (!value || (isFlag && *value != 0 && *value != 1))
        throw Failure(ExitCode::Usage, text + ": expected " +
                                           (IsSwitch(row) ? "on or off" : "a whole number, auto or manual") + " for " +
                                           row.name);
    return {&row, Assignment::Value, *value};
}

[[noreturn]] void FailNotOffered(Session &session, const ControlRow &row) {
    throw Failure(ExitCode::NotOffered,
                  session.Name() + " does not have " + row.name + "; see `uvcam controls " + session.Name() + "`");
}

void CheckOne(Session &session, const Assignment &assignment) {
    const ControlRow &row = *assignment.row;
    const std::optional<CameraControl> control = ReadControl(session, row);
    if (!control)
        FailNotOffered(session, row);
    if (control->IsReadOnly())
        throw Failure(ExitCode::NotOffered, std::string(row.name) + " of " + session.Name() + " cannot be set");
    if (assignment.mode == Assignment::Value) {
        if (control->HasNoValue())
            throw Failure(ExitCode::NotOffered,
                          std::string(row.name) + " of " + session.Name() + " is auto or manual, and nothing else");
        const auto &range = control->range;
        if ((range.minimum && assignment.value < *range.minimum) ||
            (range.maximum && assignment.value > *range.maximum))
            throw Failure(ExitCode::Usage, std::string(row.name) + "=" + std::to_string(assignment.value) +
                                               ": expected " + std::to_string(*range.minimum) + " to " +
                                               std::to_string(*range.maximum));
        return;
    }
    // The mode goes with a value: the one that is there.
    if (!NT_SUCCESS(control->status))
        session.Require(control->status, std::string("cannot read ") + row.name);
    if (assignment.mode == Assignment::Automatic && (control->setting.capabilities & UVC_CONTROL_AUTOMATIC) == 0)
        throw Failure(ExitCode::NotOffered, std::string(row.name) + " of " + session.Name() + " has no automatic");
}

ControlSetting SettingOf(const Assignment &assignment, const CameraControl &control) {
    if (assignment.mode != Assignment::Value)
        return {.value = control.setting.value,
                .flags = assignment.mode == Assignment::Automatic ? ULONG{UVC_CONTROL_AUTOMATIC}
                                                                  : ULONG{UVC_CONTROL_MANUAL}};
    switch (assignment.row->kind) {
    case ControlKind::Trigger:
        return {.value = control.setting.value,
                .flags = assignment.value != 0 ? control.setting.flags & ~kTriggerModes
                                               : control.setting.flags | kTriggerOff};
    case ControlKind::Pulse:
        return {.flags = assignment.value != 0 ? kTriggerPulse : 0};
    default:
        return {.value = assignment.value, .flags = UVC_CONTROL_MANUAL};
    }
}

std::string TextOf(const ControlRow &row, LONG value) {
    if (IsSwitch(row) && (value == 0 || value == 1))
        return value != 0 ? "on" : "off";
    return std::to_string(value);
}

// What an action leaves behind is its own affair, and what cannot be read is believed.
bool IsAsAsked(const Assignment &assignment, const CameraControl &control) {
    const ControlKind kind = assignment.row->kind;
    if (!NT_SUCCESS(control.status) || kind == ControlKind::Action || kind == ControlKind::Pulse)
        return true;
    if (assignment.mode != Assignment::Value)
        return control.IsAutomatic() == (assignment.mode == Assignment::Automatic);
    return control.Value().value_or(assignment.value) == assignment.value;
}

void TellDifference(const Assignment &assignment, const CameraControl &control) {
    if (IsAsAsked(assignment, control))
        return;
    const bool isValue = assignment.mode == Assignment::Value;
    const bool isAutomatic = control.IsAutomatic();
    const std::string is = isValue ? ValueText(control) : isAutomatic ? "auto" : "manual";
    const std::string wish = isValue ? TextOf(*assignment.row, assignment.value) : isAutomatic ? "manual" : "auto";
    std::fprintf(stderr, "uvcam: %s is %s, not %s\n", assignment.row->name, is.c_str(), wish.c_str());
}

} // namespace

bool CameraControl::IsAutomatic() const {
    const bool isMode = row->kind != ControlKind::Trigger && row->kind != ControlKind::Pulse;
    return isMode && (setting.flags & UVC_CONTROL_AUTOMATIC) != 0;
}

std::optional<LONG> CameraControl::Value() const {
    if (!NT_SUCCESS(status) || HasNoValue())
        return {};
    return row->kind == ControlKind::Trigger ? (setting.flags & kTriggerOff) == 0 : setting.value;
}

std::optional<CameraControl> ReadControl(Session &session, const ControlRow &row) {
    CameraControl control{.row = &row, .range = {}, .status = STATUS_SUCCESS, .setting = {}};
    session.Require(GetControlRange(session.Filter(), row.control, control.range),
                    std::string("cannot ask for ") + row.name);
    if (control.range.access == 0)
        return {};
    control.status = GetControl(session.Filter(), row.control, control.setting);
    // A family may know a control that this camera has no part for.
    if (control.status == STATUS_NOT_IMPLEMENTED && !row.writeOnly)
        return {};
    ControlSetting twin;
    const ControlRow *other = FindControl(row.twin);
    if (other != nullptr && NT_SUCCESS(GetControl(session.Filter(), other->control, twin)))
        control.setting.capabilities |= twin.capabilities & UVC_CONTROL_AUTOMATIC;
    return control;
}

CameraControl RequireReadable(Session &session, const ControlRow &row) {
    const std::optional<CameraControl> control = ReadControl(session, row);
    if (!control)
        FailNotOffered(session, row);
    session.Require(control->status, std::string("cannot read ") + row.name);
    return *control;
}

std::string ValueText(const CameraControl &control) {
    const std::optional<LONG> value = control.Value();
    if (!value)
        return control.HasNoValue() ? "-" : "?";
    return TextOf(*control.row, *value);
}

std::string TextOf(const CameraControl &control) {
    const std::string name = std::string(control.row->name) + "=";
    if (control.HasNoValue())
        return name + (control.IsAutomatic() ? "auto" : "manual");
    return name + ValueText(control) + (control.IsAutomatic() ? " auto" : "");
}

std::vector<Assignment> ParseAssignments(const std::vector<std::string> &texts) {
    std::vector<Assignment> assignments;
    for (const std::string &text : texts)
        assignments.push_back(ParseAssignment(text));
    return assignments;
}

void Check(Session &session, const std::vector<Assignment> &assignments) {
    for (const Assignment &assignment : assignments)
        CheckOne(session, assignment);
}

void Apply(Session &session, const std::vector<Assignment> &assignments,
           const std::function<void(const CameraControl &)> &onSet) {
    for (const Assignment &assignment : assignments) {
        const ControlRow &row = *assignment.row;
        std::optional<CameraControl> control = ReadControl(session, row);
        if (!control)
            FailNotOffered(session, row);
        const bool isLast = &assignment == &assignments.back();
        session.Require(SetControl(session.Filter(), row.control, SettingOf(assignment, *control)),
                        std::string("cannot set ") + row.name + (isLast ? "" : ", nor what comes after it"));
        control = ReadControl(session, row);
        if (!control)
            continue;
        TellDifference(assignment, *control);
        if (onSet)
            onSet(*control);
    }
}

} // namespace uvcam
