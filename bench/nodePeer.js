#!/usr/bin/env node
// The figure a user of another stack would see: a node-opcua client doing the benchmark's
// synchronous writes and calls, one after the other, against the same server.
//
//   node nodePeer.js ENDPOINT ROUND_MS ROUNDS PKI_DIR
//
// The client's certificates go to PKI_DIR (made on the first run, kept after), never to the
// user's config folder. Prints one "peer NAME RATE" line per operation (operations a second, the median of the
// rounds). It uses the node-opcua that interop/ installs for the interop tests.
"use strict";

const path = require("path");

// Node.js 18 (Debian 12's) does not expose WebCrypto as the global that node-opcua uses.
if (!globalThis.crypto) globalThis.crypto = require("crypto").webcrypto;

const { OPCUAClient, OPCUACertificateManager, DataType, VariantArrayType, StatusCodes, MessageSecurityMode, SecurityPolicy } = require(
    path.join(__dirname, "..", "interop", "node_modules", "node-opcua"));

const [endpoint, roundMsText, roundsText, pki] = process.argv.slice(2);
const roundMs = Number(roundMsText);
const rounds = Number(roundsText);
if (!endpoint || !(roundMs > 0) || !(rounds > 0) || !pki) {
    process.stderr.write("usage: node nodePeer.js ENDPOINT ROUND_MS ROUNDS PKI_DIR\n");
    process.exit(2);
}

// The benchmark's data: the same sizes and element types.
const node = (name) => `ns=1;s=${name}`;
const write = (name, dataType, value, arrayType) => ({
    nodeId: node(name),
    attributeId: 13, // Value
    value: { value: { dataType, value, arrayType: arrayType || VariantArrayType.Scalar } },
});
const writes = {
    publish_sync_scalar: write("M2FloatValue0", DataType.Float, 1.25),
    publish_sync_matrix36: write("M2DoubleMatrix36", DataType.Double,
        Float64Array.from({ length: 36 }, (_, i) => i * 0.5), VariantArrayType.Array),
    publish_sync_uint16x62: write("M2Uint16Vector62", DataType.UInt16,
        Uint16Array.from({ length: 62 }, (_, i) => i), VariantArrayType.Array),
    publish_sync_string15: write("M2StringVector15", DataType.String,
        Array.from({ length: 15 }, (_, i) => `string ${String(i).padStart(6, "0")}`), VariantArrayType.Array),
};
const calls = {
    rpc_sync_force_ads15: {
        objectId: node("WhRpcForceSetpointAds"),
        methodId: node("WhRpcForceSetpointAds.RPC_ForceSetpointAds"),
        inputArguments: Array.from({ length: 15 }, (_, i) => ({ dataType: DataType.Double, value: i + 0.5 })),
    },
    rpc_sync_leg_array6: {
        objectId: node("PsRpcLegPositionSetpoint"),
        methodId: node("PsRpcLegPositionSetpoint.RPC_LegPositionSetpoint"),
        inputArguments: [{ dataType: DataType.Double, arrayType: VariantArrayType.Array,
                           value: Float64Array.from([1, 2, 3, 4, 5, 6]) }],
    },
};

function median(values) {
    const sorted = [...values].sort((a, b) => a - b);
    const mid = Math.floor(sorted.length / 2);
    return sorted.length % 2 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
}

/// Operations a second of one awaited operation repeated for roundMs.
async function rate(operation) {
    const start = process.hrtime.bigint();
    const end = start + BigInt(roundMs) * 1000000n;
    let count = 0;
    let now = start;
    while (now < end) {
        await operation();
        ++count;
        now = process.hrtime.bigint();
    }
    return count / (Number(now - start) / 1e9);
}

async function main() {
    const client = OPCUAClient.create({
        endpointMustExist: false,
        securityMode: MessageSecurityMode.None,
        securityPolicy: SecurityPolicy.None,
        connectionStrategy: { maxRetry: 2, initialDelay: 100 },
        requestedSessionTimeout: 60000,
        clientCertificateManager: new OPCUACertificateManager({ rootFolder: pki }),
    });
    await client.connect(endpoint);
    const session = await client.createSession();
    try {
        const operations = {};
        for (const [name, item] of Object.entries(writes)) {
            operations[name] = async () => {
                const status = await session.write(item);
                if (status !== StatusCodes.Good) throw new Error(`${name}: ${status.toString()}`);
            };
        }
        for (const [name, request] of Object.entries(calls)) {
            operations[name] = async () => {
                const result = await session.call(request);
                if (result.statusCode !== StatusCodes.Good || result.outputArguments[0].value !== true)
                    throw new Error(`${name}: ${result.statusCode.toString()}`);
            };
        }
        for (const operation of Object.values(operations)) await rate(operation); // warm up
        const rates = Object.fromEntries(Object.keys(operations).map((name) => [name, []]));
        for (let round = 0; round < rounds; ++round)
            for (const [name, operation] of Object.entries(operations)) rates[name].push(await rate(operation));
        for (const [name, values] of Object.entries(rates)) process.stdout.write(`peer ${name} ${median(values).toFixed(0)}\n`);
    } finally {
        await session.close();
        await client.disconnect();
    }
}

main().catch((error) => {
    process.stderr.write(`nodePeer.js: ${error && error.message ? error.message : error}\n`);
    process.exit(1);
});
