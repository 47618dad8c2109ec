#!/usr/bin/python3
"""Writes a MobileNet-sized image classifier as ONNX: inverted residual blocks with depthwise
convolutions (batch norm folded into the convolution biases, ReLU6 as Clip), 1 x 3 x 224 x 224
input, one vector of logits out. Random weights: it is there to be timed, not to be right.

    /usr/bin/python3 bench/mobilenet_onnx.py OUT.onnx [CLASSES]

Prints the parameter count. Needs Debian's python3-onnx and python3-numpy."""

import sys

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

# (expansion, output channels, repeats, first stride) of each stage.
STAGES = ((1, 16, 1, 1), (6, 24, 2, 2), (6, 32, 3, 2), (6, 64, 4, 2), (6, 96, 3, 1), (6, 160, 3, 2),
          (6, 320, 1, 1))


class Graph:
    def __init__(self, seed):
        self.rng = np.random.default_rng(seed)
        self.nodes, self.weights = [], []
        self.count = 0

    def name(self, kind):
        self.count += 1
        return f"{kind}{self.count}"

    def tensor(self, kind, values):
        name = self.name(kind)
        self.weights.append(numpy_helper.from_array(values.astype(np.float32), name))
        return name

    def conv(self, x, cin, cout, kernel, stride=1, groups=1, relu6=True):
        fan_in = cin // groups * kernel * kernel
        w = self.tensor("w", self.rng.normal(0, np.sqrt(2.0 / fan_in), (cout, cin // groups, kernel, kernel)))
        b = self.tensor("b", self.rng.normal(0, 0.01, cout))
        y = self.name("conv")
        pad = kernel // 2
        self.nodes.append(helper.make_node("Conv", [x, w, b], [y], kernel_shape=[kernel, kernel],
                                           strides=[stride, stride], pads=[pad] * 4, group=groups))
        if not relu6:
            return y
        z = self.name("relu6")
        self.nodes.append(helper.make_node("Clip", [y], [z], min=0.0, max=6.0))
        return z

    def block(self, x, cin, cout, expansion, stride):
        hidden = cin * expansion
        y = self.conv(x, cin, hidden, 1) if expansion != 1 else x
        y = self.conv(y, hidden, hidden, 3, stride, groups=hidden)
        y = self.conv(y, hidden, cout, 1, relu6=False)
        if stride == 1 and cin == cout:
            s = self.name("add")
            self.nodes.append(helper.make_node("Add", [x, y], [s]))
            return s
        return y


def build(classes):
    g = Graph(seed=224)
    x = g.conv("input", 3, 32, 3, stride=2)
    cin = 32
    for expansion, cout, repeats, stride in STAGES:
        for i in range(repeats):
            x = g.block(x, cin, cout, expansion, stride if i == 0 else 1)
            cin = cout
    x = g.conv(x, cin, 1280, 1)
    g.nodes.append(helper.make_node("GlobalAveragePool", [x], ["pooled"]))
    g.nodes.append(helper.make_node("Flatten", ["pooled"], ["features"], axis=1))
    w = g.tensor("fc_w", g.rng.normal(0, np.sqrt(1.0 / 1280), (classes, 1280)))
    b = g.tensor("fc_b", np.zeros(classes))
    g.nodes.append(helper.make_node("Gemm", ["features", w, b], ["scores"], transB=1))
    graph = helper.make_graph(g.nodes, "mobilenet_sized", [
        helper.make_tensor_value_info("input", TensorProto.FLOAT, [1, 3, 224, 224])
    ], [helper.make_tensor_value_info("scores", TensorProto.FLOAT, [1, classes])], initializer=g.weights)
    # Opset 10: Clip's bounds are attributes there, as OpenCV's importer reads them.
    model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 10)])
    onnx.checker.check_model(model)
    params = sum(int(np.prod(t.dims)) for t in g.weights)
    return model, params


if __name__ == "__main__":
    model, params = build(int(sys.argv[2]) if len(sys.argv) > 2 else 1000)
    onnx.save(model, sys.argv[1])
    print(params)
