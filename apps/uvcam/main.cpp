// uvcam: cameras from the command line.
#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"

#include <CLI/CLI.hpp>

#include <array>
#include <charconv>
#include <cstdio>

namespace {

using namespace uvcam;

constexpr const char *kSettingsHelp =
    "file that keeps the settings between runs (default: uvcam/settings.json in XDG_STATE_HOME or ~/.local/state)";
constexpr const char *kAssignmentHelp = "NAME=VALUE, NAME=auto, NAME=manual, NAME=on or NAME=off";
constexpr const char *kCameraHelp = "sim:NAME[,option=value...] or file:DEVICE.bin,CONFIG.bin; see `uvcam list`";

// "640x480"; throws what CLI11 reports as a usage error.
Size ParseSize(const std::string &text) {
    int width = 0;
    int height = 0;
    int end = 0;
    if (std::sscanf(text.c_str(), "%5dx%5d%n", &width, &height, &end) != 2 ||
        static_cast<std::size_t>(end) != text.size() || width < 1 || height < 1)
        throw CLI::ValidationError("--size", "expected WIDTHxHEIGHT, such as 640x480, not " + text);
    return {width, height};
}

// "90,-13,0": exactly as many numbers as the array has.
template <class Number, std::size_t count>
std::array<Number, count> ParseList(const char *option, const std::string &text) {
    std::array<Number, count> numbers{};
    const char *at = text.data();
    const char *const end = at + text.size();
    for (std::size_t i = 0; i < count; ++i) {
        const auto [next, error] = std::from_chars(at, end, numbers[i]);
        const bool last = i + 1 == count;
        if (error != std::errc() || (last ? next != end : next == end || *next != ','))
            throw CLI::ValidationError(option, "expected " + std::to_string(count) +
                                                   " whole numbers with commas between them, not " + text);
        at = last ? next : next + 1;
    }
    return numbers;
}

void AddList(CLI::App &app, ListOptions &options) {
    CLI::App *list = app.add_subcommand("list", "cameras that can be opened");
    list->add_flag("--json", options.json, "as JSON");
    list->final_callback([&options] { List(options); });
}

void AddFormats(CLI::App &app, FormatsOptions &options) {
    CLI::App *formats = app.add_subcommand("formats", "formats, sizes and frame rates that a camera offers");
    formats->add_option("camera", options.camera, kCameraHelp)->required();
    formats->add_option("--settings", options.settings, kSettingsHelp);
    formats->add_flag("--json", options.json, "as JSON");
    formats->final_callback([&options] { Formats(options); });
}

void AddStream(CLI::App &command, StreamOptions &options) {
    command.add_option("--format", options.format, "RGB3, RGB4, Y800, BY8, YUY2, ... (default: the camera's first)");
    command.add_option_function<std::string>(
        "--size", [&options](const std::string &text) { options.size = ParseSize(text); },
        "WIDTHxHEIGHT (default: the format's first)");
    command.add_option("--fps", options.framesPerSecond, "frames per second")->check(CLI::Range(0.01, 10000.0));
    command.add_option_function<std::vector<std::string>>(
        "--set", [&options](const std::vector<std::string> &texts) { options.settings = ParseAssignments(texts); },
        std::string("before the first frame: ") + kAssignmentHelp);
}

void AddControls(CLI::App &app, ControlsOptions &options) {
    CLI::App *controls = app.add_subcommand("controls", "every control: value, range, step, default, mode");
    controls->add_option("camera", options.camera, kCameraHelp)->required();
    controls->add_option("--settings", options.settings, kSettingsHelp);
    controls->add_flag("--json", options.json, "as JSON");
    controls->final_callback([&options] { Controls(options); });
}

void AddGet(CLI::App &app, GetOptions &options) {
    CLI::App *get = app.add_subcommand("get", "values of controls");
    get->add_option("camera", options.camera, kCameraHelp)->required();
    get->add_option("names", options.names, "as `uvcam controls` names them, such as Exposure")->required();
    get->add_option("--settings", options.settings, kSettingsHelp);
    get->final_callback([&options] { Get(options); });
}

void AddSet(CLI::App &app, SetOptions &options) {
    CLI::App *set = app.add_subcommand("set", "set controls, one after the other, and print what they then are");
    set->add_option("camera", options.camera, kCameraHelp)->required();
    set->add_option("assignments", options.assignments, kAssignmentHelp)->required();
    set->add_option("--settings", options.settings, kSettingsHelp);
    set->final_callback([&options] { Set(options); });
}

void AddInfo(CLI::App &app, InfoOptions &options) {
    CLI::App *info = app.add_subcommand("info", "vendor, product, serial number, firmware, driver and its parameters");
    info->add_option("camera", options.camera, kCameraHelp)->required();
    info->add_option("--settings", options.settings, kSettingsHelp);
    info->add_flag("--json", options.json, "as JSON");
    info->final_callback([&options] { Info(options); });
}

void AddMonitor(CLI::App &app, MonitorOptions &options) {
    CLI::App *monitor = app.add_subcommand("monitor", "what the automatics do, a line for every frame");
    monitor->add_option("camera", options.camera, kCameraHelp)->required();
    AddStream(*monitor, options.stream);
    monitor->add_option("--frames", options.frames, "how many frames (default: until Ctrl-C)")
        ->check(CLI::Range(1u, 1000000000u));
    monitor->add_option("--scene", options.scene, "a PNG for a simulated camera to look at");
    monitor->add_flag("--free-run", options.freeRun, "as fast as frames are taken, not at the frame rate");
    monitor->add_option("--settings", options.settings, kSettingsHelp);
    monitor->add_flag("--json", options.json, "one JSON object a line");
    monitor->final_callback([&options] { Monitor(options); });
}

void AddCapture(CLI::App &app, CaptureOptions &options) {
    CLI::App *capture = app.add_subcommand("capture", "capture frames into files or to stdout");
    capture->add_option("camera", options.camera, kCameraHelp)->required();
    AddStream(*capture, options.stream);
    capture->add_option("--frames", options.frames, "how many frames")->check(CLI::Range(1u, 1000000000u));
    capture->add_option("--output", options.output, "frame-%04d.png (.ppm, .pgm, .raw), or - for raw frames on stdout");
    capture->add_option("--scene", options.scene, "a PNG for a simulated camera to look at");
    capture->add_flag("--free-run", options.freeRun, "as fast as frames are taken, not at the frame rate");
    capture->add_flag("--overlay", options.overlay, "draw the statistics lines into the frames");
    capture->add_option(
        "--fault", options.faults,
        "pool:N irp:N mdl:N workitem:N thread:N (N+: and later) usb:N=stall|hang|short|babble|gone|delay "
        "abort:N=late|never|early");
    capture->add_option("--settings", options.settings, kSettingsHelp);
    // A bus with a small limit makes the driver assemble payloads out of several transfers.
    capture->add_option("--max-transfer", options.maximumTransfer)->check(CLI::Range(512u, 0x10000000u))->group("");
    capture->add_flag("--json", options.json, "frames and summary as JSON");
    capture->final_callback([&options] { Capture(options); });
}

void AddConvert(CLI::App &app, ConvertOptions &options) {
    CLI::App *convert = app.add_subcommand("convert", "convert a raw image as the driver does");
    convert->add_option("--from", options.from, "B1BG, B1GB, B1GR, B1RG, BY8: colour; Y800: monochrome")->required();
    convert->add_option("--to", options.to, "RGB3, RGB4, Y800, YUY2 or one of the above")->required();
    convert
        ->add_option_function<std::string>(
            "--size", [&options](const std::string &text) { options.size = ParseSize(text); }, "WIDTHxHEIGHT")
        ->required();
    convert->add_option("--isa", options.isa, "scalar, sse2 or sse4.1 (default: the best there is)");
    convert->add_option_function<std::string>(
        "--gains", [&options](const std::string &text) { options.gains = ParseList<std::int32_t, 3>("--gains", text); },
        "R,G,B in 1/64");
    convert->add_option_function<std::string>(
        "--matrix",
        [&options](const std::string &text) { options.matrix = ParseList<std::int16_t, 9>("--matrix", text); },
        "nine coefficients by rows red, green, blue, in 1/64");
    convert->add_flag("--smooth", options.smooth, "smooth green, or grey");
    convert->add_flag("--top-down", options.topDown, "RGB top-down; 8-bit copies upside down");
    convert->add_option("IN", options.input, "a file, or - for stdin")->required();
    convert->add_option("OUT", options.output, "a file, or - for stdout")->required();
    convert->final_callback([&options] { Convert(options); });
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Capture from industrial USB cameras through the uvc_drv driver"};
    app.name("uvcam");
    app.require_subcommand(1);
    ListOptions list;
    FormatsOptions formats;
    ControlsOptions controls;
    GetOptions get;
    SetOptions set;
    InfoOptions info;
    CaptureOptions capture;
    MonitorOptions monitor;
    ConvertOptions convert;
    AddList(app, list);
    AddFormats(app, formats);
    AddInfo(app, info);
    AddControls(app, controls);
    AddGet(app, get);
    AddSet(app, set);
    AddCapture(app, capture);
    AddMonitor(app, monitor);
    AddConvert(app, convert);

    try {
        app.parse(argc, argv);
        return static_cast<int>(ExitCode::Done);
    } catch (const CLI::CallForHelp &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        std::fprintf(stderr, "uvcam: %s\n", error.what());
        return static_cast<int>(ExitCode::Usage);
    } catch (const Failure &failure) {
        std::fprintf(stderr, "uvcam: %s\n", failure.what());
        return static_cast<int>(failure.code);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "uvcam: %s\n", error.what());
        return static_cast<int>(ExitCode::Failed);
    }
}
