// The audio path against a PulseAudio daemon of the test's own (null sink, private socket), read back with pactl.

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "recording_listener.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

TEST(PlayerPulse, StreamCarriesMediaRoleAndMutes)
{
    const std::string dir = freshDirectory("pulse"), socket = dir + "/native";
    // Output in a file: CTest waits for the pipes to close. It ends itself once idle for 30 s. Per-user mode
    // even as root: --system would use the machine-wide socket and configuration.
    std::string pid;
    ASSERT_EQ(runCommand("env -i XDG_RUNTIME_DIR=" + dir + " HOME=" + dir + " PATH=\"$PATH\" pulseaudio -n " +
                             "--daemonize=no --exit-idle-time=30 --use-pid-file=no --log-target=stderr " +
                             "-L 'module-null-sink sink_name=lumiflux_null' -L 'module-native-protocol-unix socket=" +
                             socket + " auth-anonymous=1' > " + dir + "/pulseaudio.log 2>&1 & echo -n $!",
                         &pid),
              0);
    std::shared_ptr<void> stop(nullptr, [&](void*) { kill(std::stoi(pid), SIGTERM); });
    std::string out;
    const auto pactl = [&](const std::string& command, const std::string& text) {
        for (int i = 0; i < 300; ++i) {
            runCommand("LC_ALL=C PULSE_SERVER=unix:" + socket + " pactl " + command + " 2>&1", &out);
            if (out.find(text) != std::string::npos)
                return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    };
    ASSERT_TRUE(pactl("info", "Server Name"))
        << "no sound server (scripts/install-deps installs pulseaudio); see " << dir << "/pulseaudio.log\n"
        << out;
    setenv("PULSE_SERVER", ("unix:" + socket).c_str(), 1);
    ListenedPlayer session;
    ASSERT_TRUE(session.start(mediaUri("media.mkv")));
    session.player.setAutoRepeat(true);
    ASSERT_TRUE(pactl("list sink-inputs", "media.role")) << out;
    EXPECT_NE(out.find("media.role = \"x-tollan\""), std::string::npos) << out;
    EXPECT_NE(out.find("Mute: no"), std::string::npos) << out;
    session.player.setMute(true);
    EXPECT_TRUE(pactl("list sink-inputs", "Mute: yes")) << out;
    session.player.setMute(false);
    EXPECT_TRUE(pactl("list sink-inputs", "Mute: no")) << out;
    EXPECT_TRUE(session.listener.snapshot(session.listener.errors).empty());
}

} // namespace
