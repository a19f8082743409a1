// Runs the published PoseNet graph model in TensorFlow.js and writes its float outputs, the
// reference that the converted .tflite model is checked against.
//
//   node posenet-reference.js <tfjs dir> <model dir> <picture.rgb> <width> <height> <out prefix>
//     [cpu|wasm]
//
// <tfjs dir> holds node_modules with @tensorflow/tfjs (scripts/fetch-posenet.sh installs it);
// <model dir> holds posenet.json and posenet.bin. The picture is raw RGB, width x height x 3
// bytes, fed as x / 127.5 - 1. Writes <out prefix>.heatmaps, .short_offsets and .mid_offsets:
// float32, little-endian, row-major [grid height, grid width, channels] with 17, 34 and 64
// channels, the mid offsets being the forward then the backward displacements. The backend is
// TensorFlow.js's plain JavaScript one by default (about 7 s a picture), or its WebAssembly one
// (pure WebAssembly, no native add-on; about 0.2 s, with its own rounding: up to 1.2e-3 off on
// offsets of 200 pixels). Nothing is fetched: the model is read from the files given.
'use strict';

const fs = require('fs');
const path = require('path');

async function main() {
    const args = process.argv.slice(2);
    if (args.length < 6 || args.length > 7) {
        console.error('usage: posenet-reference.js <tfjs dir> <model dir> <picture.rgb> ' +
                      '<width> <height> <out prefix> [cpu|wasm]');
        process.exit(2);
    }
    const [tfjsDir, modelDir, picture, widthText, heightText, prefix] = args;
    const backend = args[6] || 'cpu';
    const width = Number(widthText);
    const height = Number(heightText);
    const modules = path.join(path.resolve(tfjsDir), 'node_modules');
    const tf = require(path.join(modules, '@tensorflow/tfjs'));
    if (backend === 'wasm') {
        const wasm = require(path.join(modules, '@tensorflow/tfjs-backend-wasm'));
        wasm.setWasmPaths(path.join(modules, '@tensorflow/tfjs-backend-wasm/dist') + path.sep);
    }
    if (!(await tf.setBackend(backend))) {
        throw new Error('backend ' + backend + ' is not available');
    }
    await tf.ready();

    // The graph's placeholder is declared 385 x 385; the network is fully convolutional, so
    // the height and width are left open.
    const model = JSON.parse(fs.readFileSync(path.join(modelDir, 'posenet.json'), 'utf8'));
    for (const node of model.modelTopology.node) {
        if (node.op === 'Placeholder') {
            node.attr.shape.shape.dim = [{size: '1'}, {size: '-1'}, {size: '-1'}, {size: '3'}];
        }
    }
    const manifest = model.weightsManifest;
    const weights = fs.readFileSync(path.join(modelDir, manifest[0].paths[0]));
    const graph = await tf.loadGraphModel(tf.io.fromMemory({
        modelTopology: model.modelTopology,
        weightSpecs: manifest.flatMap((group) => group.weights),
        weightData: weights.buffer.slice(weights.byteOffset, weights.byteOffset + weights.length),
    }));

    const bytes = fs.readFileSync(picture);
    if (bytes.length !== width * height * 3) {
        throw new Error(picture + ' holds ' + bytes.length + ' bytes, not ' + width + ' x ' +
                        height + ' x 3');
    }
    const input = tf.tidy(() => tf.tensor(Int32Array.from(bytes), [1, height, width, 3], 'int32')
                                    .toFloat()
                                    .div(127.5)
                                    .sub(1));
    const names = {
        heatmaps: 'MobilenetV1/heatmap_2/BiasAdd',
        short_offsets: 'MobilenetV1/offset_2/BiasAdd',
        forward: 'MobilenetV1/displacement_fwd_2/BiasAdd',
        backward: 'MobilenetV1/displacement_bwd_2/BiasAdd',
    };
    const order = Object.keys(names);
    const outputs = graph.execute(input, order.map((key) => names[key]));
    const result = {};
    order.forEach((key, i) => (result[key] = outputs[i]));
    const mid = tf.concat([result.forward, result.backward], 3);
    const write = async (name, tensor) => {
        const values = await tensor.data();
        fs.writeFileSync(prefix + '.' + name, Buffer.from(values.buffer, values.byteOffset,
                                                          values.byteLength));
    };
    await write('heatmaps', result.heatmaps);
    await write('short_offsets', result.short_offsets);
    await write('mid_offsets', mid);
    const shape = result.heatmaps.shape;
    console.log('posenet-reference: ' + backend + ', grid ' + shape[1] + ' x ' + shape[2]);
}

main().catch((error) => {
    console.error('posenet-reference: ' + (error && error.message ? error.message : error));
    process.exit(1);
});
