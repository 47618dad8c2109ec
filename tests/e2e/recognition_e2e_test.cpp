// The daemon and the reference AI service on the built-in scenes (sky, grass, snow, cartoon in
// turn): what goes over the queue, what the service classifies and what reaches the PQ settings.
#include "e2e_harness.h"

namespace e2e {
namespace {

class RecognitionE2E : public Harness {};

// The 16-hex-digit picture fingerprints that follow `marker` in a log, in order.
std::vector<std::string> fingerprints(const std::string& log, const std::string& marker) {
    std::vector<std::string> out;
    for (size_t pos = log.find(marker); pos != std::string::npos; pos = log.find(marker, pos + 1)) {
        out.push_back(log.substr(pos + marker.size(), 16));
    }
    return out;
}

TEST_F(RecognitionE2E, EveryCapturedFrameIsClassifiedAndEachNewSceneApplied) {
    startService();
    startDaemon();
    ASSERT_TRUE(eventually([&] { return pqRows("pq_history").size() >= 5; })) << m_daemon->output();
    for (const char* library : {"libopencv", "libavformat", "libaipq_capture_files"}) {
        EXPECT_EQ(mapped(library), "") << "built-in scenes need no file decoding";
    }
    stop(*m_daemon);

    // After the cold start (its order and framing are the client's own tests), predictions only;
    // the model goes (and goes again, as the last command is re-sent) when the worker stops.
    std::vector<std::string> sent = commands();
    ASSERT_GE(sent.size(), 10u);
    auto end = std::find_if(sent.begin() + 5, sent.end(),
                            [](const std::string& c) { return c != proto::kCmdPredict; });
    EXPECT_GE(end - sent.begin(), 10);
    EXPECT_EQ(std::vector<std::string>(end, sent.end()),
              std::vector<std::string>(static_cast<size_t>(sent.end() - end), proto::kCmdReleaseModel));

    // The first picture too, whose start the configuration exchange had overwritten.
    std::vector<std::string> captured = fingerprints(m_daemon->output(), " captured, ");
    std::vector<std::string> classified = fingerprints(m_service->output(), "ai_service_predict: picture ");
    ASSERT_GE(classified.size(), 5u);
    ASSERT_GE(captured.size(), classified.size());
    EXPECT_EQ(classified, std::vector<std::string>(captured.begin(), captured.begin() + classified.size()));

    const Label rotation[4] = {telvo_ai_service::Sky, telvo_ai_service::Grassland, telvo_ai_service::Snow,
                               telvo_ai_service::Cartoon};
    std::vector<std::vector<int>> history = pqRows("pq_history");
    for (size_t i = 0; i < history.size(); ++i) {
        EXPECT_EQ(history[i], pqRow(rotation[i % 4])) << "row " << i;
    }
    EXPECT_EQ(pqRows("pq_parameters"), std::vector<std::vector<int>>{history.back()});
}

TEST_F(RecognitionE2E, GameModeParksTheWorkerAndWithdrawsTheScene) {
    startService();
    startDaemon();
    ASSERT_TRUE(eventually([&] { return !pqRows("pq_history").empty(); })) << m_daemon->output();
    // The host appends to the history after it has replaced the row in force: the history's last
    // row is the one applied, once both are written.
    auto applied = [] {
        std::vector<std::vector<int>> rows = pqRows("pq_history");
        return rows.empty() ? std::vector<int>() : rows.back();
    };
    tvctl("set game_mode 1");
    ASSERT_TRUE(eventually([&] { return applied() == pqRow(telvo_ai_service::Invalid); }))
        << m_daemon->output();
    const long before = predicts();
    const size_t rows = pqRows("pq_history").size();
    std::this_thread::sleep_for(1500ms);  // three periods at this time scale
    EXPECT_EQ(predicts(), before);
    EXPECT_EQ(pqRows("pq_history").size(), rows);

    tvctl("set game_mode 0");
    EXPECT_TRUE(eventually([&] { return applied() != pqRow(telvo_ai_service::Invalid); }))
        << "game mode off wakes the worker and the scene is applied again";
    stop(*m_daemon);
}

// The new service knows nothing: it has to be initialised and configured before the model loads.
TEST_F(RecognitionE2E, RestartedServiceIsBroughtUpAgainAndScenesKeepComing) {
    m_service.reset(new ChildProcess({kBin + "/ai_service", "--exit-after", "8"}, env({})));
    startDaemon();
    ASSERT_EQ(m_service->wait(30s), 0) << m_service->output();
    const size_t rows = pqRows("pq_history").size();
    startService();
    ASSERT_TRUE(eventually([&] { return pqRows("pq_history").size() >= rows + 2; })) << m_daemon->output();
    const std::vector<std::string> sent = commands();
    const std::vector<std::string> bringUp = {proto::kCmdInitAiService, proto::kCmdGetModelConfig,
                                              proto::kCmdSetModelConfig, proto::kCmdSetAiType};
    auto found = std::search(sent.begin(), sent.end(), bringUp.begin(), bringUp.end());
    EXPECT_NE(std::find(found, sent.end(), std::string(proto::kCmdLoadModel)), sent.end());
    stop(*m_daemon);
}

}  // namespace
}  // namespace e2e
