// lumiflux cameras: every camera with its formats and modes; --watch then
// prints cameras that come and go until interrupted.

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include <lumiflux/camera.h>

#include "camera_lookup.h"
#include "command.h"
#include "interrupt.h"

namespace lumiflux_tool {
namespace {

using namespace Tevara::Lumiflux;

// Modes grouped by size, rates listed once per size: "640x480 @ 5, 10, 30 fps".
std::vector<std::string> modeLines(const std::vector<CameraCapability>& modes)
{
    std::vector<std::pair<std::pair<std::uint32_t, std::uint32_t>, std::string>> sizes;
    for (const auto& mode : modes) {
        const auto key = std::make_pair(mode.width, mode.height);
        auto it = std::find_if(sizes.begin(), sizes.end(), [&](const auto& entry) { return entry.first == key; });
        if (it == sizes.end()) {
            sizes.emplace_back(key, std::to_string(mode.frameRate));
        } else {
            it->second += ", " + std::to_string(mode.frameRate);
        }
    }
    std::vector<std::string> lines;
    for (const auto& [size, rates] : sizes)
        lines.push_back(std::to_string(size.first) + "x" + std::to_string(size.second) + " @ " + rates + " fps");
    return lines;
}

void describe(Output& out, CameraManager& manager, const CameraInfo& info, size_t index)
{
    std::vector<CameraCapability> modes;
    manager.queryCapabilities(info.id, modes);
    std::string formats;
    nlohmann::json formatList = nlohmann::json::array();
    for (const auto& format : manager.getSupportedFormats(info.id)) {
        formats += (formats.empty() ? "" : " ") + toString(format.format);
        formatList.push_back({{"format", toString(format.format)}, {"modifier", format.modifier}});
    }
    out.text(std::to_string(index) + ": " + info.id + "  \"" + info.name + "\"");
    out.text("    provider " + info.provider + ", facing " + facingName(info.facing) + ", mount angle " +
             std::to_string(info.mountAngle));
    if (!info.description.empty() && info.description != info.name)
        out.text("    " + info.description);
    out.text("    formats: " + (formats.empty() ? std::string("none") : formats));
    for (const auto& line : modeLines(modes))
        out.text("    " + line);

    nlohmann::json modeList = nlohmann::json::array();
    for (const auto& mode : modes)
        modeList.push_back({{"width", mode.width}, {"height", mode.height}, {"frameRate", mode.frameRate}});
    out.record({{"event", "camera"},
                {"index", index},
                {"id", info.id},
                {"name", info.name},
                {"provider", info.provider},
                {"facing", info.facing},
                {"facingName", facingName(info.facing)},
                {"mountAngle", info.mountAngle},
                {"description", info.description},
                {"formats", formatList},
                {"capabilities", modeList}});
}

// Hot-plug arrives on a plug-in thread; printing is serialised here.
class Watcher : public CameraManagerListener {
public:
    explicit Watcher(Output& output) : out(output) {}
    void onCameraAdded(const std::string& id) override { report("added", id); }
    void onCameraRemoved(const std::string& id) override { report("removed", id); }

private:
    void report(const char* what, const std::string& id)
    {
        std::lock_guard<std::mutex> lock(mutex);
        out.text(std::string(what) + ": " + id);
        out.record({{"event", what}, {"id", id}});
    }
    Output& out;
    std::mutex mutex;
};

int run(Output& out, bool watch)
{
    CameraManager* manager = LumifluxManager();
    if (watch)
        watchForInterrupt();
    const auto cameras = listCameras(*manager);
    if (cameras.empty())
        out.text("no cameras (LUMIFLUX_TEST_CAMERAS=N offers test cameras)");
    for (size_t i = 0; i < cameras.size(); ++i)
        describe(out, *manager, cameras[i], i);
    out.record({{"event", "cameras"}, {"count", cameras.size()}});
    if (!watch)
        return 0;

    Watcher watcher(out);
    manager->setListener(&watcher);
    out.text("watching for cameras; Ctrl-C ends");
    out.record({{"event", "watching"}});
    while (!interrupted())
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    manager->setListener(nullptr);
    return 0;
}

const CommandRegistration registration{
    Command{"cameras", "list the cameras with their formats and modes; --watch follows hot-plug",
            [](CLI::App& app) {
                auto watch = std::make_shared<bool>(false);
                app.add_flag("--watch", *watch, "then print cameras added and removed until interrupted");
                return std::function<int(Output&)>([watch](Output& out) { return run(out, *watch); });
            },
            20}};

} // namespace
} // namespace lumiflux_tool
