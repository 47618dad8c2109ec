// The overlay marker on where DirectFB cannot start.
#include "e2e_harness.h"

namespace e2e {
namespace {

class OverlayDumpE2E : public Harness {};

// DirectFB is not quiet here, so every start it attempts shows in the output.
TEST_F(OverlayDumpE2E, NoDisplayIsFoundOutOnceAndRecognitionGoesOn) {
    std::ofstream("/var/local/aipq_show_debug_window_enable").close();
    startService();
    startDaemon({"DISPLAY=", "DFBARGS=system=x11,no-banner"});
    ASSERT_TRUE(m_daemon->waitForOutput("recognitionPicture ret: 0.", 60s, 4)) << m_daemon->output();
    EXPECT_LE(m_daemon->count("Error in XOpenDisplay"), 1) << m_daemon->output();
    EXPECT_EQ(m_daemon->count("DirectFB cannot start here"), 1) << m_daemon->output();
    EXPECT_EQ(m_daemon->count("aipq_dfb_probe not found"), 0) << m_daemon->output();
    stop(*m_daemon);
}

}  // namespace
}  // namespace e2e
