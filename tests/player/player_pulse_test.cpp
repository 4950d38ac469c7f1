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
#include <vector>

#include <gtest/gtest.h>

#include "recording_listener.h"
#include "test_paths.h"

using namespace std::chrono_literals;
using namespace lumiflux_test;

namespace {

class PulseServer {
public:
    PulseServer()
    {
        dir = freshDirectory("pulse");
        socket = dir + "/native";
        // Root runs it in per-user mode on purpose: --system would use the
        // machine-wide socket and configuration, not a private server.
        std::vector<std::string> args = {"pulseaudio",
                                         "-n",
                                         "--daemonize=no",
                                         "--exit-idle-time=-1",
                                         "--use-pid-file=no",
                                         "--log-target=stderr",
                                         "-L",
                                         "module-null-sink sink_name=lumiflux_null",
                                         "-L",
                                         "module-native-protocol-unix socket=" + socket + " auth-anonymous=1"};
        std::vector<std::string> env = {"XDG_RUNTIME_DIR=" + dir, "HOME=" + dir, "PATH=" + std::string(getenv("PATH"))};
        std::vector<char*> argv, envp;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        for (auto& e : env)
            envp.push_back(e.data());
        envp.push_back(nullptr);
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
            execvpe("pulseaudio", argv.data(), envp.data());
            _exit(127);
        }
        started = pid > 0;
    }
    ~PulseServer()
    {
        if (started) {
            kill(pid, SIGTERM);
            int status = 0;
            waitpid(pid, &status, 0);
        }
    }
    std::string pactl(const std::string& command)
    {
        std::string out;
        runCommand("PULSE_SERVER=unix:" + socket + " pactl " + command + " 2>&1", &out);
        return out;
    }
    /** Polls until the server answers (it starts in well under a second). */
    bool waitReady()
    {
        for (int i = 0; i < 200 && started; ++i) {
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) {
                started = false;
                return false;
            }
            std::string out;
            if (runCommand("PULSE_SERVER=unix:" + socket + " pactl info >/dev/null 2>&1", &out) == 0)
                return true;
            std::this_thread::sleep_for(50ms);
        }
        return false;
    }

    std::string dir;
    std::string socket;
    pid_t pid = -1;
    bool started = false;
};

// Polls pactl until `predicate` holds on its output.
template <typename Predicate> bool waitForPactl(PulseServer& server, Predicate predicate, std::string* last)
{
    for (int i = 0; i < 300; ++i) {
        *last = server.pactl("list sink-inputs");
        if (predicate(*last))
            return true;
        std::this_thread::sleep_for(100ms);
    }
    return false;
}

TEST(PlayerPulse, StreamCarriesMediaRoleAndMutes)
{
    PulseServer server;
    ASSERT_TRUE(server.started) << "cannot start a process";
    ASSERT_TRUE(server.waitReady()) << "the private sound server did not start (pulseaudio is installed by "
                                       "scripts/install-deps); see "
                                    << server.dir << "/pulseaudio.log";
    setenv("PULSE_SERVER", ("unix:" + server.socket).c_str(), 1);

    RecordingListener listener;
    Player player;
    player.setListener(&listener);
    player.play(mediaUri("media.mkv"));
    player.pause();
    ASSERT_TRUE(listener.waitForState(PlayerState::Playing));
    player.setAutoRepeat(true);

    std::string out;
    ASSERT_TRUE(waitForPactl(
        server, [](const std::string& o) { return o.find("media.role") != std::string::npos; }, &out))
        << out;
    EXPECT_NE(out.find("media.role = \"x-tollan\""), std::string::npos) << out;
    EXPECT_NE(out.find("Mute: no"), std::string::npos) << out;

    player.setMute(true);
    EXPECT_TRUE(waitForPactl(
        server, [](const std::string& o) { return o.find("Mute: yes") != std::string::npos; }, &out))
        << out;
    player.setMute(false);
    EXPECT_TRUE(waitForPactl(
        server, [](const std::string& o) { return o.find("Mute: no") != std::string::npos; }, &out))
        << out;
    EXPECT_TRUE(listener.snapshot(listener.errors).empty());
    player.setListener(nullptr);
}

} // namespace
