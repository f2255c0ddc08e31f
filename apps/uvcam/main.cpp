// uvcam: cameras from the command line.
#include "apps/uvcam/commands.h"
#include "apps/uvcam/exit_code.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace {

using namespace uvcam;

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

void AddList(CLI::App &app, ListOptions &options) {
    CLI::App *list = app.add_subcommand("list", "cameras that can be opened");
    list->add_flag("--json", options.json, "as JSON");
    list->final_callback([&options] { List(options); });
}

void AddFormats(CLI::App &app, FormatsOptions &options) {
    CLI::App *formats = app.add_subcommand("formats", "formats, sizes and frame rates that a camera offers");
    formats->add_option("camera", options.camera, kCameraHelp)->required();
    formats->add_flag("--json", options.json, "as JSON");
    formats->final_callback([&options] { Formats(options); });
}

void AddCapture(CLI::App &app, CaptureOptions &options) {
    CLI::App *capture = app.add_subcommand("capture", "capture frames into files or to stdout");
    capture->add_option("camera", options.camera, kCameraHelp)->required();
    capture->add_option("--format", options.format, "RGB3, RGB4, Y800, BY8, YUY2, ... (default: the camera's first)");
    capture->add_option_function<std::string>(
        "--size", [&options](const std::string &text) { options.size = ParseSize(text); },
        "WIDTHxHEIGHT (default: the format's first)");
    capture->add_option("--fps", options.framesPerSecond, "frames per second")->check(CLI::Range(0.01, 10000.0));
    capture->add_option("--frames", options.frames, "how many frames")->check(CLI::Range(1u, 1000000000u));
    capture->add_option("--output", options.output, "frame-%04d.png (.ppm, .pgm, .raw), or - for raw frames on stdout");
    capture->add_option("--scene", options.scene, "a PNG for a simulated camera to look at");
    capture->add_flag("--free-run", options.freeRun, "as fast as frames are taken, not at the frame rate");
    capture->add_flag("--overlay", options.overlay, "draw the statistics lines into the frames");
    capture->add_option(
        "--fault", options.faults,
        "pool:N irp:N mdl:N workitem:N thread:N (N+: and later) usb:N=stall|hang|short|babble|gone|delay");
    capture->add_option("--settings", options.settings, "file that keeps the settings between runs");
    capture->add_flag("--json", options.json, "frames and summary as JSON");
    capture->final_callback([&options] { Capture(options); });
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Capture from industrial USB cameras through the uvc_drv driver"};
    app.name("uvcam");
    app.require_subcommand(1);
    ListOptions list;
    FormatsOptions formats;
    CaptureOptions capture;
    AddList(app, list);
    AddFormats(app, formats);
    AddCapture(app, capture);

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
