// aipq_service_check against the reference service, on the built-in classifier and on an ONNX
// model, and against services broken in one way each: every check passes on the reference, and a
// broken service fails exactly the check that names its fault.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "onnx_model.h"

namespace {

const std::string kBin = AIPQ_BIN_DIR;
const std::string kBroken = std::string(AIPQ_BIN_DIR) + "/../tests/broken_ai_service";

struct Report {
    int status = -1;
    std::map<std::string, std::string> verdicts;  // check -> PASS, FAIL, WARN or NOT RUN
    std::string text;
};

Report check(const std::string& service, const std::string& env = "") {
    Report report;
    report.status =
        runCommand(env + " " + kBin + "/aipq_service_check --rounds 2 --service-log /dev/null --service '" +
                       service + "' 2>&1",
                   &report.text);
    std::istringstream lines(report.text);
    for (std::string line; std::getline(lines, line);) {
        const bool notRun = line.rfind("NOT RUN", 0) == 0;
        std::istringstream words(notRun ? line.substr(7) : line);
        std::string verdict = "NOT RUN", name;
        if ((notRun || words >> verdict) && words >> name &&
            (notRun || verdict == "PASS" || verdict == "FAIL" || verdict == "WARN")) {
            report.verdicts[name] = verdict;
        }
    }
    return report;
}

std::set<std::string> with(const Report& report, const std::string& verdict) {
    std::set<std::string> names;
    for (const auto& [name, v] : report.verdicts) {
        if (v == verdict) {
            names.insert(name);
        }
    }
    return names;
}

constexpr size_t kChecks = 21;

TEST(ServiceCheckTest, EveryCheckPassesOnTheReferenceServiceWithEitherBackend) {
    Report builtin = check(kBin + "/ai_service");
    EXPECT_EQ(builtin.status, 0) << builtin.text;
    EXPECT_EQ(with(builtin, "PASS").size(), kChecks) << builtin.text;

    char dir[] = "/tmp/aipq_check_onnx_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    ONNX_MODEL_OR_SKIP(dir);
    std::ofstream(std::string(dir) + "/labels.txt") << "Snow\nGrassland\nSky\n";
    Report onnx =
        check(kBin + "/ai_service", "RECOGNITION_MODEL_PATH=" + std::string(dir) +
                                        "/model.onnx RECOGNITION_LABEL_PATH=" + dir + "/labels.txt");
    std::filesystem::remove_all(dir);
    EXPECT_EQ(onnx.status, 0) << onnx.text;
    EXPECT_EQ(with(onnx, "PASS").size(), kChecks) << onnx.text;
    // Only the model scores a third label for these pictures.
    EXPECT_NE(onnx.text.find("17 Snow"), std::string::npos) << "not the ONNX model\n" << onnx.text;
}

using Fault = std::pair<std::string, std::string>;  // broken service's argument, the check it fails
class BrokenServiceCheck : public ::testing::TestWithParam<Fault> {};

TEST_P(BrokenServiceCheck, FailsExactlyTheCheckNamingTheFault) {
    const Report report = check(kBroken + " " + GetParam().first);
    EXPECT_EQ(report.status, 1) << report.text;
    EXPECT_EQ(with(report, "FAIL"), std::set<std::string>{GetParam().second}) << report.text;
    EXPECT_EQ(report.verdicts.size(), kChecks) << report.text;
}

INSTANTIATE_TEST_SUITE_P(Faults, BrokenServiceCheck,
                         ::testing::Values(Fault{"record-offset", "predict.records"},
                                           Fault{"late-results", "channel.results-first"},
                                           Fault{"silent-aitype", "sequence.cold"},
                                           Fault{"dies-on-unknown", "states.unknown-command"},
                                           Fault{"unordered", "predict.order"}),
                         [](const auto& info) {
                             std::string name = info.param.first;
                             name.erase(std::remove(name.begin(), name.end(), '-'), name.end());
                             return name;
                         });

}  // namespace
