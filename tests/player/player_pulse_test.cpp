// The audio path against a real sound server: the test starts its own
// PulseAudio daemon with a null sink, private runtime directory and socket,
// and reads the player's stream back with pactl.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "recording_listener.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class PulseServer {
public:
    PulseServer() : dir(freshDirectory("pulse")), socket(dir + "/native")
    {
        const std::string module = "module-native-protocol-unix socket=" + socket + " auth-anonymous=1";
        const std::string env[] = {"XDG_RUNTIME_DIR=" + dir, "HOME=" + dir, "PATH=" + std::string(getenv("PATH"))};
        const std::string log = dir + "/pulseaudio.log";
        pid = fork();
        if (pid == 0) {
            // The server must not outlive a test process that dies, nor keep
            // its output pipes (CTest waits for them to close).
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
            if (fd >= 0) {
                dup2(fd, 1);
                dup2(fd, 2);
            }
            const char* envp[] = {env[0].c_str(), env[1].c_str(), env[2].c_str(), nullptr};
            // Root runs it in per-user mode on purpose: --system would use the
            // machine-wide socket and configuration, not a private server.
            const char* argv[] = {"pulseaudio",
                                  "-n",
                                  "--daemonize=no",
                                  "--exit-idle-time=-1",
                                  "--use-pid-file=no",
                                  "--log-target=stderr",
                                  "-L",
                                  "module-null-sink sink_name=lumiflux_null",
                                  "-L",
                                  module.c_str(),
                                  nullptr};
            execvpe("pulseaudio", const_cast<char**>(argv), const_cast<char**>(envp));
            _exit(127);
        }
    }
    ~PulseServer()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
    /** Polls pactl with `command` until its output (left in `out`) contains `text`. */
    bool waitForPactl(const std::string& command, const std::string& text, std::string& out, int tries = 300)
    {
        for (int i = 0; i < tries && pid > 0; ++i) {
            runCommand("LC_ALL=C PULSE_SERVER=unix:" + socket + " pactl " + command + " 2>&1", &out);
            if (out.find(text) != std::string::npos)
                return true;
            std::this_thread::sleep_for(100ms);
        }
        return false;
    }

    std::string dir;
    std::string socket;
    pid_t pid = -1;
};

TEST(PlayerPulse, StreamCarriesMediaRoleAndMutes)
{
    PulseServer server;
    std::string out;
    ASSERT_TRUE(server.waitForPactl("info", "Server Name", out, 100))
        << "the private sound server did not start (pulseaudio is installed by scripts/install-deps); see "
        << server.dir << "/pulseaudio.log\n"
        << out;
    setenv("PULSE_SERVER", ("unix:" + server.socket).c_str(), 1);

    ListenedPlayer session;
    ASSERT_TRUE(session.start(mediaUri("media.mkv")));
    session.player.setAutoRepeat(true);

    ASSERT_TRUE(server.waitForPactl("list sink-inputs", "media.role", out)) << out;
    EXPECT_NE(out.find("media.role = \"x-tollan\""), std::string::npos) << out;
    EXPECT_NE(out.find("Mute: no"), std::string::npos) << out;
    session.player.setMute(true);
    EXPECT_TRUE(server.waitForPactl("list sink-inputs", "Mute: yes", out)) << out;
    session.player.setMute(false);
    EXPECT_TRUE(server.waitForPactl("list sink-inputs", "Mute: no", out)) << out;
    EXPECT_TRUE(session.listener.snapshot(session.listener.errors).empty());
}

} // namespace
