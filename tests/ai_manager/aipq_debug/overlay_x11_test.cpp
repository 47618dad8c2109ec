// The overlay drawn by the real DirectFB into a private Xvfb, checked on screenshots taken with
// ImageMagick and decoded with OpenCV.
#include <fcntl.h>
#include <glob.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <opencv2/imgcodecs.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

const char* const kFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

struct Rgb {
    int r, g, b;
};

std::ostream& operator<<(std::ostream& os, const Rgb& c) {
    return os << "(" << c.r << "," << c.g << "," << c.b << ")";
}

bool near(const Rgb& a, const Rgb& b, int tolerance) {
    return std::abs(a.r - b.r) <= tolerance && std::abs(a.g - b.g) <= tolerance &&
           std::abs(a.b - b.b) <= tolerance;
}

// The driver's picture quadrants, as the eye should see them.
const Rgb kTopLeft{230, 40, 20};
const Rgb kTopRight{20, 200, 60};
const Rgb kBottomLeft{30, 60, 220};
const Rgb kBottomRight{240, 220, 30};
const Rgb kBlack{0, 0, 0};
// 0x80 grey at alpha 0x96 over the black of the layer.
const Rgb kPanel{75, 75, 75};

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A process that exists and is not a zombie waiting for a parent that may never reap it.
bool running(pid_t pid) {
    std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z';
}

bool waitChild(pid_t pid, int* status, std::chrono::milliseconds timeout) {
    const auto end = Clock::now() + timeout;
    while (Clock::now() < end) {
        if (waitpid(pid, status, WNOHANG) == pid) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

void stopChild(pid_t pid) {
    int status = 0;
    kill(pid, SIGTERM);
    if (!waitChild(pid, &status, std::chrono::seconds(10))) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
}

// Reads whole lines from a pipe with a deadline.
class LineReader {
public:
    explicit LineReader(int fd) : m_fd(fd) {}

    bool next(std::string& line, std::chrono::milliseconds timeout) {
        const auto end = Clock::now() + timeout;
        for (;;) {
            size_t nl = m_buffer.find('\n');
            if (nl != std::string::npos) {
                line = m_buffer.substr(0, nl);
                m_buffer.erase(0, nl + 1);
                return true;
            }
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (left <= 0) {
                return false;
            }
            pollfd pfd = {m_fd, POLLIN, 0};
            if (poll(&pfd, 1, static_cast<int>(left)) <= 0) {
                continue;
            }
            char chunk[256];
            ssize_t n = read(m_fd, chunk, sizeof(chunk));
            if (n <= 0) {
                return false;
            }
            m_buffer.append(chunk, static_cast<size_t>(n));
        }
    }

private:
    int m_fd;
    std::string m_buffer;
};

// A private X server on a display number it picks itself.
class Xvfb {
public:
    bool start(const std::string& dir, std::string& why) {
        int fds[2];
        if (pipe(fds) != 0) {
            why = "pipe failed";
            return false;
        }
        m_log = dir + "/xvfb.log";
        m_pid = fork();
        if (m_pid == 0) {
            close(fds[0]);
            int log = open(m_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (log >= 0) {
                dup2(log, STDOUT_FILENO);
                dup2(log, STDERR_FILENO);
            }
            std::string fd = std::to_string(fds[1]);
            // GLX off: DirectFB's x11 system crashes while probing GLX visuals.
            execlp("Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1920x1080x24", "-extension",
                   "GLX", "-nolisten", "tcp", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        if (m_pid < 0) {
            close(fds[0]);
            why = "fork failed";
            return false;
        }
        LineReader reader(fds[0]);
        std::string number;
        bool ok = reader.next(number, std::chrono::seconds(30)) && !number.empty();
        close(fds[0]);
        if (!ok) {
            why = "Xvfb did not come up: " + readFile(m_log);
            stop();
            return false;
        }
        m_display = ":" + number;
        return true;
    }

    void stop() {
        if (m_pid > 0) {
            stopChild(m_pid);
            m_pid = -1;
        }
    }

    ~Xvfb() { stop(); }

    const std::string& display() const { return m_display; }

private:
    pid_t m_pid = -1;
    std::string m_display;
    std::string m_log;
};

// The overlay driver in a child process, talked to over its stdin and stdout.
class Driver {
public:
    bool start(const std::vector<std::string>& env, const std::string& errLog, const char* option = nullptr) {
        int in[2];
        int out[2];
        if (pipe(in) != 0 || pipe(out) != 0) {
            return false;
        }
        m_errLog = errLog;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            int err = open(errLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (err >= 0) {
                dup2(err, STDERR_FILENO);
            }
            close(in[1]);
            close(out[0]);
            unsetenv("DISPLAY");
            unsetenv("DFBARGS");
            for (const std::string& kv : env) {
                putenv(const_cast<char*>(kv.c_str()));
            }
            execl(AIPQ_OVERLAY_DRIVER, AIPQ_OVERLAY_DRIVER, option, static_cast<char*>(nullptr));
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        m_in = in[1];
        m_reader.reset(new LineReader(out[0]));
        m_out = out[0];
        return m_pid > 0;
    }

    std::string reply(std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
        std::string line;
        return m_reader->next(line, timeout) ? line : "<no answer>";
    }

    std::string command(const std::string& cmd) {
        std::string line = cmd + "\n";
        if (write(m_in, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
            return "<write failed>";
        }
        return reply();
    }

    // Closes stdin and returns the exit status, or -1 if the driver had to be killed.
    int finish() {
        if (m_in >= 0) {
            close(m_in);
            m_in = -1;
        }
        int status = 0;
        if (!waitChild(m_pid, &status, std::chrono::seconds(30))) {
            stopChild(m_pid);
            m_pid = -1;
            return -1;
        }
        m_pid = -1;
        return status;
    }

    std::string log() const { return readFile(m_errLog); }

    ~Driver() {
        if (m_pid > 0) {
            finish();
        }
        if (m_out >= 0) {
            close(m_out);
        }
    }

private:
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    std::unique_ptr<LineReader> m_reader;
    std::string m_errLog;
};

class Screenshot {
public:
    bool take(const std::string& display, const std::string& path) {
        std::string cmd = "import -display " + display + " -window root " + path + " 2>/dev/null";
        if (std::system(cmd.c_str()) != 0) {
            return false;
        }
        m_image = cv::imread(path, cv::IMREAD_COLOR);
        return !m_image.empty();
    }

    Rgb at(int x, int y) const {
        const cv::Vec3b& p = m_image.at<cv::Vec3b>(y, x);
        return Rgb{p[2], p[1], p[0]};
    }

    // Pixels in [x0, x1) x [y0, y1) with every channel above the threshold.
    int brightIn(int x0, int y0, int x1, int y1, int threshold = 200) const {
        int n = 0;
        for (int y = y0; y < y1; ++y) {
            for (int x = x0; x < x1; ++x) {
                Rgb c = at(x, y);
                n += (c.r > threshold && c.g > threshold && c.b > threshold) ? 1 : 0;
            }
        }
        return n;
    }

    int width() const { return m_image.cols; }
    int height() const { return m_image.rows; }

private:
    cv::Mat m_image;
};

class OverlayX11Test : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/aipq_overlay_x11_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
    }

    void TearDown() override {
        m_xvfb.stop();
        if (HasFailure()) {
            std::printf("screenshots and logs kept in %s\n", m_dir.c_str());
        } else {
            std::system(("rm -rf " + m_dir).c_str());
        }
    }

    void startXvfb() {
        glob_t found;
        bool x11System = glob("/usr/lib/*/directfb-*/systems/libdirectfb_x11.so", 0, nullptr, &found) == 0;
        globfree(&found);
        ASSERT_TRUE(x11System)
            << "DirectFB's x11 system is not installed (libdirectfb-extra, scripts/setup.sh)";
        std::string why;
        if (!m_xvfb.start(m_dir, why)) {
            GTEST_SKIP() << "Xvfb cannot start here: " << why;
        }
    }

    std::vector<std::string> env(const std::string& mode, const std::string& font = kFont) const {
        return {"DISPLAY=" + m_xvfb.display(), "DFBARGS=system=x11,no-banner,quiet,no-cursor,mode=" + mode,
                "FONTFILE=" + font, "HOME=" + m_dir, "AIPQ_LOG_LEVEL=4000"};
    }

    // Screenshots until `ready` holds (drawing reaches the X server a little later) or time runs out.
    Screenshot shotWhen(const std::string& name, const std::function<bool(const Screenshot&)>& ready) {
        Screenshot shot;
        const auto end = Clock::now() + std::chrono::seconds(20);
        do {
            EXPECT_TRUE(shot.take(m_xvfb.display(), m_dir + "/" + name + ".png"));
            if (shot.width() > 0 && ready(shot)) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        } while (Clock::now() < end);
        return shot;
    }

    void expectColour(const Screenshot& shot, int x, int y, const Rgb& want, int tolerance) {
        Rgb got = shot.at(x, y);
        EXPECT_TRUE(near(got, want, tolerance))
            << "at (" << x << "," << y << ") got " << got << " want " << want;
        std::printf("probe (%4d,%4d) = %s\n", x, y, (std::stringstream() << got).str().c_str());
    }

    Xvfb m_xvfb;
    std::string m_dir;
};

TEST_F(OverlayX11Test, FullHdPanelShowsPictureAndTextAndClears) {
    startXvfb();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    Driver driver;
    ASSERT_TRUE(driver.start(env("1920x1080"), m_dir + "/driver.log"));
    ASSERT_EQ(driver.reply(), "OVERLAY READY") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();

    Screenshot shot = shotWhen("shown", [](const Screenshot& s) { return near(s.at(1500, 700), kPanel, 8); });
    ASSERT_EQ(shot.width(), 1920);
    ASSERT_EQ(shot.height(), 1080);

    // Panel: canvas from screen x 800; its grey rectangle from canvas (78, 10), 1000 wide cut at
    // the canvas edge, 1055 high.
    expectColour(shot, 400, 500, kBlack, 4);
    expectColour(shot, 877, 500, kBlack, 4);
    expectColour(shot, 878, 500, kPanel, 8);
    expectColour(shot, 1799, 500, kPanel, 8);
    expectColour(shot, 1800, 500, kBlack, 4);
    expectColour(shot, 1300, 9, kBlack, 4);
    expectColour(shot, 1300, 10, kPanel, 8);
    expectColour(shot, 1300, 1064, kPanel, 8);
    expectColour(shot, 1300, 1065, kBlack, 4);

    // Picture at its own size at panel (100, 35) = screen (900, 35), colours as the camera saw them.
    expectColour(shot, 956, 91, kTopLeft, 10);
    expectColour(shot, 1068, 91, kTopRight, 10);
    expectColour(shot, 956, 203, kBottomLeft, 10);
    expectColour(shot, 1068, 203, kBottomRight, 10);
    expectColour(shot, 900, 35, kTopLeft, 10);
    expectColour(shot, 1123, 258, kBottomRight, 10);
    expectColour(shot, 899, 100, kPanel, 8);
    expectColour(shot, 1124, 100, kPanel, 8);
    expectColour(shot, 1000, 34, kPanel, 8);
    expectColour(shot, 1000, 259, kPanel, 8);

    // White text from (900, 300): the first line stands on y 300, the second one line lower, and
    // nothing is left of x 900 or below the second line.
    const int firstLine = shot.brightIn(900, 268, 1500, 304);
    const int secondLine = shot.brightIn(900, 304, 1500, 350);
    std::printf("bright pixels: first line %d, second line %d\n", firstLine, secondLine);
    EXPECT_GT(firstLine, 100);
    EXPECT_GT(secondLine, 100);
    EXPECT_EQ(shot.brightIn(880, 260, 900, 360), 0);
    EXPECT_EQ(shot.brightIn(880, 360, 1800, 1080), 0);
    EXPECT_EQ(shot.brightIn(900, 0, 1800, 268, 250), 0);

    // Clear: the panel area turns transparent, the objects stay for the next Show.
    ASSERT_EQ(driver.command("clear"), "CLEARED");
    Screenshot cleared =
        shotWhen("cleared", [](const Screenshot& s) { return near(s.at(1500, 700), kBlack, 4); });
    expectColour(cleared, 1500, 700, kBlack, 4);
    expectColour(cleared, 956, 91, kBlack, 4);
    EXPECT_EQ(cleared.brightIn(900, 268, 1500, 350), 0);

    ASSERT_EQ(driver.command("show"), "SHOWN");
    Screenshot again =
        shotWhen("again", [](const Screenshot& s) { return near(s.at(1500, 700), kPanel, 8); });
    expectColour(again, 956, 91, kTopLeft, 10);
    EXPECT_GT(again.brightIn(900, 268, 1500, 304), 100);

    EXPECT_EQ(driver.finish(), 0) << driver.log();
    EXPECT_NE(driver.log().find("layer size form [ 1920 x 1080 ]"), std::string::npos) << driver.log();
}

// DirectFB's RGB24 keeps blue in the first byte in memory: the controller's swap to
// blue-green-red is what makes the picture come out in its true colours.
TEST_F(OverlayX11Test, UnswappedBytesShowRedAndBlueExchanged) {
    startXvfb();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    Driver driver;
    ASSERT_TRUE(driver.start(env("1920x1080"), m_dir + "/driver.log", "--unswapped"));
    ASSERT_EQ(driver.reply(), "OVERLAY READY") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();
    Screenshot shot = shotWhen("shown", [](const Screenshot& s) { return near(s.at(1500, 700), kPanel, 8); });
    expectColour(shot, 956, 91, Rgb{kTopLeft.b, kTopLeft.g, kTopLeft.r}, 10);
    expectColour(shot, 956, 203, Rgb{kBottomLeft.b, kBottomLeft.g, kBottomLeft.r}, 10);
    EXPECT_EQ(driver.finish(), 0) << driver.log();
}

TEST_F(OverlayX11Test, HdReadyLayerShowsThePanelScaledDown) {
    startXvfb();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    Driver driver;
    ASSERT_TRUE(driver.start(env("1280x720"), m_dir + "/driver.log"));
    ASSERT_EQ(driver.reply(), "OVERLAY READY") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();

    // Panel at (533, 0), 666 x 720: canvas point (cx, cy) lands at (533 + cx / 1.5, cy / 1.5).
    Screenshot shot = shotWhen("shown", [](const Screenshot& s) { return near(s.at(866, 400), kPanel, 8); });
    expectColour(shot, 866, 400, kPanel, 8);
    expectColour(shot, 560, 400, kBlack, 4);
    expectColour(shot, 1205, 400, kBlack, 4);
    expectColour(shot, 637, 61, kTopLeft, 12);
    expectColour(shot, 711, 61, kTopRight, 12);
    expectColour(shot, 637, 135, kBottomLeft, 12);
    expectColour(shot, 711, 135, kBottomRight, 12);
    EXPECT_GT(shot.brightIn(600, 170, 1000, 205, 180), 20);

    EXPECT_EQ(driver.finish(), 0) << driver.log();
    EXPECT_NE(driver.log().find("layer size form [ 1280 x 720 ]"), std::string::npos) << driver.log();
}

TEST_F(OverlayX11Test, OtherLayerSizeKeepsFullSizePanelAndRunsOn) {
    startXvfb();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    Driver driver;
    ASSERT_TRUE(driver.start(env("1024x768"), m_dir + "/driver.log"));
    ASSERT_EQ(driver.reply(), "OVERLAY READY") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();

    // Scale 1: the panel stays at x 800 and is cut at the layer's right edge.
    Screenshot shot = shotWhen("shown", [](const Screenshot& s) { return near(s.at(1000, 500), kPanel, 8); });
    expectColour(shot, 850, 500, kBlack, 4);
    expectColour(shot, 1000, 500, kPanel, 8);
    expectColour(shot, 956, 91, kTopLeft, 10);
    expectColour(shot, 956, 203, kBottomLeft, 10);

    ASSERT_EQ(driver.command("clear"), "CLEARED");
    ASSERT_EQ(driver.command("show"), "SHOWN");
    EXPECT_EQ(driver.finish(), 0) << driver.log();
    EXPECT_NE(driver.log().find("layer size form [ 1024 x 768 ]"), std::string::npos) << driver.log();
}

TEST_F(OverlayX11Test, MissingFontFileLeavesPanelAndPictureWithoutText) {
    startXvfb();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    Driver driver;
    ASSERT_TRUE(driver.start(env("1920x1080", "/nonexistent/font.ttf"), m_dir + "/driver.log"));
    ASSERT_EQ(driver.reply(), "OVERLAY READY") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();

    Screenshot shot = shotWhen("shown", [](const Screenshot& s) { return near(s.at(1500, 700), kPanel, 8); });
    expectColour(shot, 1500, 700, kPanel, 8);
    expectColour(shot, 956, 91, kTopLeft, 10);
    EXPECT_EQ(shot.brightIn(880, 260, 1800, 1080), 0);

    EXPECT_EQ(driver.finish(), 0) << driver.log();
    EXPECT_NE(driver.log().find("Error creating Font.  /nonexistent/font.ttf"), std::string::npos)
        << driver.log();
}

// No X server behind DISPLAY (or none named): no overlay, a log line, and the process carries on.
TEST_F(OverlayX11Test, MissingDisplayGivesNoOverlayAndNoCrash) {
    // A display number nobody serves.
    int unused = 97;
    while (access(("/tmp/.X11-unix/X" + std::to_string(unused)).c_str(), F_OK) == 0) {
        ++unused;
    }
    const std::vector<std::vector<std::string>> setups = {
        {"DISPLAY=:" + std::to_string(unused), "DFBARGS=system=x11,no-banner,quiet,mode=1920x1080",
         std::string("FONTFILE=") + kFont, "HOME=" + m_dir},
        {"DFBARGS=system=x11,no-banner,quiet,mode=1920x1080", std::string("FONTFILE=") + kFont,
         "HOME=" + m_dir},
    };
    for (size_t i = 0; i < setups.size(); ++i) {
        SCOPED_TRACE(i == 0 ? "DISPLAY without server" : "no DISPLAY");
        Driver driver;
        ASSERT_TRUE(driver.start(setups[i], m_dir + "/driver" + std::to_string(i) + ".log"));
        EXPECT_EQ(driver.reply(), "NO OVERLAY") << driver.log();
        // The controller asks again on later cycles.
        EXPECT_EQ(driver.command("create"), "NO OVERLAY") << driver.log();
        int status = driver.finish();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n"
                                                                   << driver.log();
        const std::string log = driver.log();
        EXPECT_NE(log.find("DirectFB cannot start here"), std::string::npos) << log;
        EXPECT_NE(log.find("Failed to create display."), std::string::npos) << log;
    }
}

TEST_F(OverlayX11Test, HelperScriptStartsShootsAndStops) {
    const std::string script = AIPQ_OVERLAY_SCRIPT;
    const std::string state = "AIPQ_OVERLAY_STATE=" + m_dir + "/state ";
    const std::string envFile = m_dir + "/env.sh";
    if (std::system((state + script + " start > " + envFile + " 2>" + m_dir + "/start.err").c_str()) != 0) {
        GTEST_SKIP() << "Xvfb cannot start here: " << readFile(m_dir + "/start.err");
    }
    // Its settings, given as "export KEY=VALUE" lines.
    std::vector<std::string> settings;
    std::istringstream lines(readFile(envFile));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("export ", 0) == 0) {
            settings.push_back(line.substr(7));
        }
    }
    const std::string exported = readFile(envFile);
    EXPECT_NE(exported.find("export DISPLAY=:"), std::string::npos) << exported;
    EXPECT_NE(exported.find("export DFBARGS=system=x11,no-banner,quiet,no-cursor,mode=1920x1080\n"),
              std::string::npos)
        << exported;
    // Started twice, it keeps the one server.
    EXPECT_EQ(std::system((state + script + " start > " + m_dir + "/env2.sh").c_str()), 0);
    EXPECT_EQ(readFile(m_dir + "/env2.sh"), exported);

    settings.push_back(std::string("FONTFILE=") + kFont);
    settings.push_back("HOME=" + m_dir);
    Driver driver;
    ASSERT_TRUE(driver.start(settings, m_dir + "/driver.log"));
    ASSERT_EQ(driver.reply(), "OVERLAY READY") << driver.log();
    ASSERT_EQ(driver.command("show"), "SHOWN") << driver.log();

    // Numbered shots: PREFIX N gives PREFIX_N.png, and the path is printed.
    const std::string png = m_dir + "/overlay_7.png";
    cv::Mat image;
    const auto end = Clock::now() + std::chrono::seconds(20);
    do {
        ASSERT_EQ(
            std::system((state + script + " shot " + m_dir + "/overlay 7 > " + m_dir + "/shot.out").c_str()),
            0);
        EXPECT_EQ(readFile(m_dir + "/shot.out"), png + "\n");
        image = cv::imread(png, cv::IMREAD_COLOR);
        ASSERT_FALSE(image.empty());
        cv::Vec3b p = image.at<cv::Vec3b>(700, 1500);
        if (near(Rgb{p[2], p[1], p[0]}, kPanel, 8)) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    } while (Clock::now() < end);
    EXPECT_EQ(image.cols, 1920);
    EXPECT_EQ(image.rows, 1080);
    cv::Vec3b panel = image.at<cv::Vec3b>(700, 1500);
    cv::Vec3b picture = image.at<cv::Vec3b>(91, 956);
    EXPECT_TRUE(near(Rgb{panel[2], panel[1], panel[0]}, kPanel, 8));
    EXPECT_TRUE(near(Rgb{picture[2], picture[1], picture[0]}, kTopLeft, 10));
    EXPECT_EQ(driver.finish(), 0) << driver.log();

    const std::string pid = readFile(m_dir + "/state/xvfb.pid");
    ASSERT_FALSE(pid.empty());
    EXPECT_NE(exported.find("export AIPQ_XVFB_PID=" + pid), std::string::npos) << exported;
    EXPECT_EQ(std::system((state + script + " stop").c_str()), 0);
    EXPECT_FALSE(running(std::atoi(pid.c_str()))) << "Xvfb still running";
    EXPECT_NE(access((m_dir + "/state").c_str(), F_OK), 0);
    EXPECT_EQ(std::system((state + script + " stop").c_str()), 0);
    EXPECT_NE(std::system((state + script + " shot " + png + " >/dev/null 2>&1").c_str()), 0);
}

}  // namespace
