#include "apps/uvcam/camera_control.h"
#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>

namespace uvcam {

namespace {

using Json = nlohmann::ordered_json;

std::vector<CameraControl> ReadAll(Session &session) {
    std::vector<CameraControl> controls;
    for (const ControlRow &row : ControlTable()) {
        if (const std::optional<CameraControl> control = ReadControl(session, row))
            controls.push_back(*control);
    }
    return controls;
}

Json JsonOf(const std::optional<LONG> &number) {
    return number ? Json(*number) : Json();
}

// The driver reports that it sets whatever a camera has. Only of what is its own is that known to be true.
Json ReadOnlyJson(const CameraControl &control) {
    return control.IsReadOnly() ? Json(true) : control.row->inDriver ? Json(false) : Json();
}

Json JsonOf(const CameraControl &control) {
    const ControlRow &row = *control.row;
    return {{"name", row.name},
            {"set", SetNameOf(row)},
            {"id", row.control.id},
            {"value", JsonOf(control.Value())},
            {"minimum", JsonOf(control.range.minimum)},
            {"maximum", JsonOf(control.range.maximum)},
            {"step", JsonOf(control.range.step)},
            {"default", JsonOf(control.range.defaultValue)},
            {"auto", NT_SUCCESS(control.status) ? Json(control.IsAutomatic()) : Json()},
            {"readonly", ReadOnlyJson(control)},
            {"unit", *row.unit != '\0' && !control.HasNoValue() ? Json(row.unit) : Json()}};
}

// Why the control has no effect now; empty when it has.
std::string ReasonOf(const Inactivity &rule, const std::vector<CameraControl> &controls) {
    const auto other = std::ranges::find(controls, std::string_view(rule.other), [](const CameraControl &control) {
        return std::string_view(control.row->name);
    });
    if (rule.state == Inactivity::Never || other == controls.end() || !NT_SUCCESS(other->status))
        return "";
    struct State {
        bool holds;
        const char *text;
    };
    const State states[] = {{false, ""},
                            {other->IsAutomatic(), " is automatic"},
                            {!other->IsAutomatic(), " is manual"},
                            {other->Value() != 0, " is on"},
                            {other->Value() == 0, " is off"}};
    const State &state = states[rule.state];
    return state.holds ? std::string("inactive while ") + rule.other + state.text : "";
}

std::string NoteOf(const CameraControl &control, const std::vector<CameraControl> &controls) {
    if (!NT_SUCCESS(control.status))
        return control.status == STATUS_NOT_IMPLEMENTED ? "write-only"
                                                        : "cannot be read: " + StatusName(control.status);
    if (control.IsReadOnly())
        return "read-only";
    for (const Inactivity &rule : control.row->inactive) {
        if (std::string reason = ReasonOf(rule, controls); !reason.empty())
            return reason;
    }
    if (control.IsAutomatic() && !control.HasNoValue())
        return "inactive while its automatic is on";
    return "";
}

const char *ModeOf(const CameraControl &control) {
    if (control.IsAutomatic())
        return "auto";
    const bool hasAutomatic = (control.setting.capabilities & UVC_CONTROL_AUTOMATIC) != 0;
    return hasAutomatic ? "manual" : "";
}

std::string RangeText(const host::client::ControlRange &range) {
    std::string text;
    if (range.minimum && range.maximum)
        text = std::to_string(*range.minimum) + " to " + std::to_string(*range.maximum);
    return text;
}

std::string TextOf(const std::optional<LONG> &number) {
    return number ? std::to_string(*number) : "";
}

void PrintRow(const std::string &name, const std::string &value, const std::string &range, const std::string &step,
              const std::string &initial, const std::string &mode, const std::string &note) {
    std::string line;
    const auto add = [&line](const std::string &text, std::size_t width) {
        line += text + std::string(width > text.size() ? width - text.size() : 0, ' ') + "  ";
    };
    add(name, 24);
    add(value, 16);
    add(range, 25); // that of a register
    add(step, 4);
    add(initial, 8);
    add(mode, 6);
    line += note;
    std::printf("%s\n", line.substr(0, line.find_last_not_of(' ') + 1).c_str());
}

// "4600 K", "333 x 100 us".
std::string WithUnit(const CameraControl &control) {
    const std::string unit = control.row->unit;
    const bool isFactor = !unit.empty() && unit[0] >= '0' && unit[0] <= '9';
    return ValueText(control) + (unit.empty() || control.HasNoValue() ? "" : isFactor ? " x " + unit : " " + unit);
}

void Print(const CameraControl &control, const std::vector<CameraControl> &controls) {
    PrintRow(control.row->name, WithUnit(control), RangeText(control.range), TextOf(control.range.step),
             TextOf(control.range.defaultValue), ModeOf(control), NoteOf(control, controls));
}

} // namespace

void Controls(const ControlsOptions &options) {
    Session session({.camera = options.camera, .settings = options.settings});
    const std::vector<CameraControl> controls = ReadAll(session);
    if (options.json) {
        auto all = Json::array();
        for (const CameraControl &control : controls)
            all.push_back(JsonOf(control));
        std::printf("%s\n", all.dump(2).c_str());
        return;
    }
    PrintRow("name", "value", "range", "step", "default", "mode", "");
    for (const CameraControl &control : controls)
        Print(control, controls);
}

void Get(const GetOptions &options) {
    std::vector<const ControlRow *> rows;
    for (const std::string &name : options.names)
        rows.push_back(&RequireControl(name));
    Session session({.camera = options.camera, .settings = options.settings});
    std::vector<std::string> lines; // all or nothing
    for (const ControlRow *row : rows)
        lines.push_back(TextOf(RequireReadable(session, *row)));
    for (const std::string &line : lines)
        std::printf("%s\n", line.c_str());
}

void Set(const SetOptions &options) {
    const std::vector<Assignment> assignments = ParseAssignments(options.assignments);
    Session session({.camera = options.camera, .settings = options.settings});
    Check(session, assignments);
    Apply(session, assignments, [](const CameraControl &control) {
        std::printf("%s\n", TextOf(control).c_str());
        if (!control.row->kept)
            std::fprintf(stderr, "uvcam: %s is not kept for the next run; capture and monitor take it with --set\n",
                         control.row->name);
    });
}

} // namespace uvcam
