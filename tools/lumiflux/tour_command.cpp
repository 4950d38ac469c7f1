// lumiflux tour (also what lumiflux does with no command): every capability
// in turn on bundled defaults, each step being one of the other commands run
// exactly as a user would type it.

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <glib.h>
#include <gst/gst.h>

#include "command.h"
#include "interrupt.h"
#include "plugin_directory.h"

namespace lumiflux_tool {
namespace {

namespace fs = std::filesystem;

// Whether GStreamer's device monitor sees a camera of the machine's own.
// Asked before our plug-ins are loaded, so our test cameras are not among
// what it sees.
bool machineHasCamera()
{
    gst_init(nullptr, nullptr);
    GstDeviceMonitor* monitor = gst_device_monitor_new();
    gst_device_monitor_add_filter(monitor, "Video/Source", nullptr);
    bool found = false;
    if (gst_device_monitor_start(monitor)) {
        GList* devices = gst_device_monitor_get_devices(monitor);
        found = devices != nullptr;
        g_list_free_full(devices, gst_object_unref);
        gst_device_monitor_stop(monitor);
    }
    gst_object_unref(monitor);
    return found;
}

// The sample medium: the build tree's when the tool runs from the build
// tree, otherwise the one installed beside the tool (found relative to it,
// so that a staged or moved installation uses its own copy).
std::string bundledSample()
{
    std::error_code error;
    const std::string exeDir = executableDirectory();
    if (fs::equivalent(exeDir, LUMIFLUX_BUILD_TREE_TOOL_DIR, error))
        return LUMIFLUX_BUILD_TREE_SAMPLE;
    return (fs::path(exeDir) / LUMIFLUX_INSTALLED_DATA_FROM_BIN / "sample.mkv").lexically_normal().string();
}

bool commandExists(const std::string& name)
{
    for (const Command& command : commands())
        if (command.name == name)
            return true;
    return false;
}

struct Step {
    std::string name;
    std::string command;
    std::vector<std::string> arguments;
};

int tour(const std::string& medium, Output& out)
{
    watchForInterrupt();
    bool testCameras = false;
    if (std::getenv("LUMIFLUX_TEST_CAMERAS") == nullptr && !machineHasCamera()) {
        // Read by the camera plug-in when it is loaded, which has not
        // happened yet: the first step loads it.
        setenv("LUMIFLUX_TEST_CAMERAS", "1", 1);
        testCameras = true;
    }

    gchar* made = g_dir_make_tmp("lumiflux-tour-XXXXXX", nullptr);
    if (made == nullptr) {
        out.error("WorkDirectoryFailed", "cannot make a temporary directory");
        return 1;
    }
    const fs::path work(made);
    g_free(made);
    const std::string encoded = (work / "pattern.h264").string();
    const std::string sample = medium.empty() ? bundledSample() : medium;

    out.text("lumiflux tour: plug-ins, codecs, cameras, encoding, decoding, probing and playback");
    out.text("plug-in directory: " + selectPluginDirectory());
    if (testCameras)
        out.text("no camera on this machine: LUMIFLUX_TEST_CAMERAS=1 for this run (a test-pattern camera)");
    out.record({{"event", "tour"},
                {"pluginDirectory", selectPluginDirectory()},
                {"testCameras", testCameras},
                {"sample", sample}});

    const std::vector<Step> steps{
        {"plug-ins", "plugins", {}},
        {"codecs", "codecs", {}},
        {"cameras", "cameras", {}},
        {"capture", "capture", {"0", "--frames", "30"}},
        {"encode", "encode", {"pattern", "-c", "h264", "--frames", "60", "-o", encoded}},
        {"decode", "decode", {encoded, "-o", (work / "pattern.yuv").string()}},
        {"probe", "probe", {encoded}},
        {"play", "play", {sample, "--mute"}},
    };
    int succeeded = 0;
    int index = 0;
    std::vector<std::string> failed;
    for (const Step& step : steps) {
        ++index;
        if (interrupted())
            break;
        std::string line = "lumiflux " + step.command;
        for (const std::string& argument : step.arguments)
            line += " " + argument;
        out.text("");
        out.text("[" + std::to_string(index) + "/" + std::to_string(steps.size()) + "] " + step.name + ": " + line);
        int status = 1;
        if (commandExists(step.command)) {
            status = runCommand(step.command, step.arguments, out);
        } else {
            out.error("NotAvailable", "this build has no '" + step.command + "' command");
        }
        const bool ok = status == 0;
        out.text(std::string(ok ? "  => ok" : "  => FAILED") + " (" + step.name + ", exit status " +
                 std::to_string(status) + ")");
        out.record({{"event", "step"},
                    {"step", step.name},
                    {"index", index},
                    {"of", steps.size()},
                    {"command", line},
                    {"ok", ok},
                    {"status", status}});
        if (ok)
            ++succeeded;
        else
            failed.push_back(step.name);
    }
    std::error_code error;
    fs::remove_all(work, error);

    const bool ok = succeeded == static_cast<int>(steps.size());
    std::string failedList;
    for (const std::string& name : failed)
        failedList += (failedList.empty() ? "" : ", ") + name;
    out.text("");
    out.text("tour: " + std::to_string(succeeded) + " of " + std::to_string(steps.size()) + " steps succeeded" +
             (interrupted()    ? " (interrupted)"
              : failed.empty() ? ""
                               : "; failed: " + failedList));
    out.record({{"event", "summary"},
                {"steps", steps.size()},
                {"succeeded", succeeded},
                {"failed", failed},
                {"interrupted", interrupted()},
                {"ok", ok}});
    return ok ? 0 : 1;
}

std::function<int(Output&)> setup(CLI::App& app)
{
    auto medium = std::make_shared<std::string>();
    app.add_option("medium", *medium, "what the last step plays (default: the bundled sample)");
    return [medium](Output& out) { return tour(*medium, out); };
}

const CommandRegistration registration{
    Command{"tour", "show every capability in turn on bundled defaults (the default command)", setup, 1}};

} // namespace
} // namespace lumiflux_tool
