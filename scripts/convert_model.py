#!/usr/bin/env python3
"""Turns the fp16 IS-Net graph into fp32 so that OpenCV's ONNX importer reads it.

Every fp16 initializer becomes fp32, every Cast node is removed (its output is wired to its input, since
the whole graph is now one precision), and the declared element types of inputs, outputs and value
infos follow.
"""
import sys

import numpy as np
import onnx
from onnx import TensorProto, numpy_helper


def main(source, target):
    model = onnx.load(source)
    graph = model.graph

    for init in graph.initializer:
        if init.data_type == TensorProto.FLOAT16:
            array = numpy_helper.to_array(init).astype(np.float32)
            init.CopyFrom(numpy_helper.from_array(array, init.name))

    for node in graph.node:
        for attr in node.attribute:
            if attr.type == onnx.AttributeProto.TENSOR and attr.t.data_type == TensorProto.FLOAT16:
                array = numpy_helper.to_array(attr.t).astype(np.float32)
                attr.t.CopyFrom(numpy_helper.from_array(array, attr.t.name))

    # Drop the Casts: whoever read a Cast's output reads its input instead.
    renamed = {}
    kept = []
    for node in graph.node:
        if node.op_type == "Cast":
            renamed[node.output[0]] = node.input[0]
        else:
            kept.append(node)

    def resolve(name):
        while name in renamed:
            name = renamed[name]
        return name

    for node in kept:
        for i, name in enumerate(node.input):
            node.input[i] = resolve(name)
    graph_outputs = {o.name for o in graph.output}
    for out in graph.output:
        source_name = resolve(out.name)
        if source_name != out.name:
            # A graph output produced by a Cast: let the producer write the output's name.
            for node in kept:
                for i, name in enumerate(node.output):
                    if name == source_name:
                        node.output[i] = out.name
            for node in kept:
                for i, name in enumerate(node.input):
                    if name == source_name:
                        node.input[i] = out.name
    del graph.node[:]
    graph.node.extend(kept)

    for value in list(graph.input) + list(graph.output) + list(graph.value_info):
        tensor = value.type.tensor_type
        if tensor.elem_type == TensorProto.FLOAT16:
            tensor.elem_type = TensorProto.FLOAT

    onnx.save(model, target)
    print(f"converted {len(renamed)} Cast nodes removed; outputs: {[o.name for o in graph.output]}"
          f" (not used: {sorted(graph_outputs - {o.name for o in graph.output})})")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
