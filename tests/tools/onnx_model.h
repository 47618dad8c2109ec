#ifndef TESTS_TOOLS_ONNX_MODEL_H
#define TESTS_TOOLS_ONNX_MODEL_H

// A model for the ONNX backend, built here: ten times the mean red, green and blue as three scores.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "child_process.h"

namespace onnx_model {

inline const char* kBuilder = R"PY(
import sys, numpy as np, onnx
from onnx import helper as h, numpy_helper, TensorProto as T
nodes = [h.make_node("GlobalAveragePool", ["x"], ["p"]), h.make_node("Flatten", ["p"], ["f"]),
         h.make_node("Gemm", ["f", "w"], ["y"])]
graph = h.make_graph(nodes, "g", [h.make_tensor_value_info("x", T.FLOAT, [1, 3, 224, 224])],
                     [h.make_tensor_value_info("y", T.FLOAT, [1, 3])],
                     [numpy_helper.from_array(np.eye(3, dtype=np.float32) * 10, "w")])
model = h.make_model(graph, opset_imports=[h.make_opsetid("", 11)])
model.ir_version = 6
onnx.save(model, sys.argv[1])
)PY";

// Writes dir/model.onnx. Empty on success, else why not; *skip when Debian's interpreter (the one
// python3-onnx is installed for, by scripts/setup.sh) has no onnx module.
inline std::string build(const std::string& dir, bool* skip) {
    std::ofstream(dir + "/build.py") << kBuilder;
    std::string out;
    const int status = runCommand("/usr/bin/python3 " + dir + "/build.py " + dir + "/model.onnx", &out);
    *skip = out.find("No module named") != std::string::npos;
    return status == 0 ? "" : out;
}

}  // namespace onnx_model

// Builds the model into DIR (a test's own scratch directory): skips the test, removing DIR, where
// the interpreter has no onnx module; fails it where the build fails.
#define ONNX_MODEL_OR_SKIP(dir)                                                                             \
    do {                                                                                                    \
        bool skip_ = false;                                                                                 \
        const std::string failure_ = onnx_model::build(dir, &skip_);                                        \
        if (skip_) {                                                                                        \
            std::filesystem::remove_all(dir);                                                               \
            GTEST_SKIP() << "/usr/bin/python3 has no onnx module (scripts/setup.sh installs python3-onnx)"; \
        }                                                                                                   \
        ASSERT_EQ(failure_, "");                                                                            \
    } while (0)

#endif
