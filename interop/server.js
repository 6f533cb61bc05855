#!/usr/bin/env node
// An independent OPC UA server of the m2Types address space, built on node-opcua, for the
// interop tests. It serves the nodes of the catalogue that `m2ctl list --json` prints, so it
// cannot drift from the simulator, which is derived from the same table:
//
//   node server.js --catalogue FILE [--port N] [--pki DIR] [--users FILE]
//
// With --users (lines "user:password") it offers only Basic256Sha256 SignAndEncrypt and
// admits only those users; it accepts every client certificate.
//
// It binds 127.0.0.1, prints "ready opc.tcp://127.0.0.1:PORT" once it listens (--port 0
// picks a free port) and stops on SIGTERM or SIGINT. Certificates go to DIR (default
// ./pki), never to the user's config folder.
//
// Beside the m2Types nodes, which match the simulator's, each method has three nodes in the
// folder ns=1;s=Interop that let a test see and steer its calls:
//   ns=1;s=<Iface>.<Method>.LastCall   Variant[]: the input arguments of the last call, as received
//   ns=1;s=<Iface>.<Method>.CallCount  UInt32: calls so far
//   ns=1;s=<Iface>.<Method>.Result     Boolean, writable: what the next calls return (true)
"use strict";

const fs = require("fs");
const net = require("net");
const path = require("path");

// Node.js 18 (Debian 12's) has WebCrypto but does not expose it as a global; node-opcua
// draws its random numbers from the global.
if (!globalThis.crypto) globalThis.crypto = require("crypto").webcrypto;

const {
    OPCUAServer,
    OPCUACertificateManager,
    Variant,
    DataType,
    VariantArrayType,
    StatusCodes,
    MessageSecurityMode,
    SecurityPolicy,
    Subscription,
    MonitoredItem,
} = require("node-opcua");

function usage(message) {
    if (message) process.stderr.write(`server.js: ${message}\n`);
    process.stderr.write("usage: node server.js --catalogue FILE [--port N] [--pki DIR] [--users FILE]\n");
    process.exit(2);
}

function parseArguments(argv) {
    const options = { port: 4840, pki: path.join(__dirname, "pki"), catalogue: null, users: null };
    for (let i = 0; i < argv.length; ++i) {
        const value = () => {
            if (i + 1 >= argv.length) usage(`${argv[i]} needs a value`);
            return argv[++i];
        };
        switch (argv[i]) {
            case "--port": {
                const text = value();
                options.port = Number(text);
                if (!Number.isInteger(options.port) || options.port < 0 || options.port > 65535)
                    usage(`bad port "${text}"`);
                break;
            }
            case "--pki":
                options.pki = path.resolve(value());
                break;
            case "--users":
                options.users = path.resolve(value());
                break;
            case "--catalogue":
                options.catalogue = path.resolve(value());
                break;
            case "--help":
                usage();
                break;
            default:
                usage(`unknown argument "${argv[i]}"`);
        }
    }
    if (!options.catalogue) usage("--catalogue is required");
    return options;
}

// The OPC UA type names of the catalogue, as node-opcua's DataType names them.
function dataTypeOf(name) {
    const type = DataType[name];
    if (type === undefined || typeof type !== "number") throw new Error(`unknown OPC UA type "${name}"`);
    return type;
}

const typedArrays = {
    [DataType.SByte]: Int8Array,
    [DataType.Byte]: Uint8Array,
    [DataType.Int16]: Int16Array,
    [DataType.UInt16]: Uint16Array,
    [DataType.Int32]: Int32Array,
    [DataType.UInt32]: Uint32Array,
    [DataType.Float]: Float32Array,
    [DataType.Double]: Float64Array,
};

function zeroOf(dataType) {
    switch (dataType) {
        case DataType.Boolean:
            return false;
        case DataType.String:
            return null; // open62541's fresh String is the null string
        case DataType.UInt64:
        case DataType.Int64:
            return [0, 0];
        default:
            return 0;
    }
}

/// Zero, the null string, or the nominal length of those: what the simulator starts with.
function initialValue(dataType, isArray, nominalLength) {
    if (!isArray) return new Variant({ dataType, arrayType: VariantArrayType.Scalar, value: zeroOf(dataType) });
    const TypedArray = typedArrays[dataType];
    const value = TypedArray ? new TypedArray(nominalLength) : Array.from({ length: nominalLength }, () => zeroOf(dataType));
    return new Variant({ dataType, arrayType: VariantArrayType.Array, value });
}

/// "Double" or "Double[]" into an argument description like the simulator's.
function argumentOf(text, index) {
    const isArray = text.endsWith("[]");
    return {
        name: `arg${index}`,
        dataType: dataTypeOf(isArray ? text.slice(0, -2) : text),
        valueRank: isArray ? 1 : -1,
        arrayDimensions: isArray ? [0] : undefined,
    };
}

function stringId(nodeId) {
    const match = /^ns=1;s=(.+)$/.exec(nodeId);
    if (!match) throw new Error(`node id "${nodeId}" is not a string id of namespace 1`);
    return match[1];
}

function populate(addressSpace, catalogue) {
    const namespace = addressSpace.getOwnNamespace();
    if (namespace.index !== 1) throw new Error(`own namespace has index ${namespace.index}, expected 1`);
    const objects = addressSpace.rootFolder.objects;
    const readWrite = "CurrentRead | CurrentWrite";

    for (const type of catalogue.types) {
        const name = stringId(type.nodeId);
        const dataType = dataTypeOf(type.opcuaType);
        const isArray = type.shape === "array";
        namespace.addVariable({
            organizedBy: objects,
            nodeId: `s=${name}`,
            browseName: name,
            displayName: name,
            dataType,
            valueRank: isArray ? 1 : -1,
            arrayDimensions: isArray ? [0] : null,
            accessLevel: readWrite,
            userAccessLevel: readWrite,
            minimumSamplingInterval: 0, // every write is a change to report
            value: initialValue(dataType, isArray, type.nominalLength),
        });
    }

    const interop = namespace.addFolder(objects, { nodeId: "s=Interop", browseName: "Interop" });
    for (const iface of catalogue.interfaces) {
        const objectName = stringId(iface.objectNodeId);
        const methodName = stringId(iface.methodNodeId);
        const object = namespace.addObject({ organizedBy: objects, nodeId: `s=${objectName}`, browseName: objectName });
        const method = namespace.addMethod(object, {
            nodeId: `s=${methodName}`,
            browseName: iface.method,
            inputArguments: iface.arguments.map(argumentOf),
            outputArguments: [{ name: "result", dataType: DataType.Boolean, valueRank: -1 }],
        });

        const lastCall = namespace.addVariable({
            componentOf: interop,
            nodeId: `s=${methodName}.LastCall`,
            browseName: `${methodName}.LastCall`,
            dataType: "BaseDataType",
            valueRank: 1,
            arrayDimensions: [0],
            value: new Variant({ dataType: DataType.Variant, arrayType: VariantArrayType.Array, value: [] }),
        });
        const callCount = namespace.addVariable({
            componentOf: interop,
            nodeId: `s=${methodName}.CallCount`,
            browseName: `${methodName}.CallCount`,
            dataType: DataType.UInt32,
            value: new Variant({ dataType: DataType.UInt32, value: 0 }),
        });
        const result = namespace.addVariable({
            componentOf: interop,
            nodeId: `s=${methodName}.Result`,
            browseName: `${methodName}.Result`,
            dataType: DataType.Boolean,
            accessLevel: readWrite,
            userAccessLevel: readWrite,
            value: new Variant({ dataType: DataType.Boolean, value: true }),
        });

        // node-opcua has checked the count and types of the arguments before this runs.
        method.bindMethod((inputArguments, _context, callback) => {
            lastCall.setValueFromSource(
                new Variant({
                    dataType: DataType.Variant,
                    arrayType: VariantArrayType.Array,
                    value: inputArguments.map((argument) => new Variant(argument)),
                }),
            );
            callCount.setValueFromSource(
                new Variant({ dataType: DataType.UInt32, value: callCount.readValue().value.value + 1 }),
            );
            callback(null, {
                statusCode: StatusCodes.Good,
                outputArguments: [{ dataType: DataType.Boolean, value: result.readValue().value.value }],
            });
        });
    }
}

/// A free loopback port, for --port 0: node-opcua announces the port it was given.
function freePort() {
    return new Promise((resolve, reject) => {
        const probe = net.createServer();
        probe.once("error", reject);
        probe.listen(0, "127.0.0.1", () => {
            const { port } = probe.address();
            probe.close(() => resolve(port));
        });
    });
}

async function main() {
    const options = parseArguments(process.argv.slice(2));
    const catalogue = JSON.parse(fs.readFileSync(options.catalogue, "utf8"));
    if (!Array.isArray(catalogue.types) || !Array.isArray(catalogue.interfaces))
        throw new Error(`${options.catalogue} has no "types" and "interfaces"`);

    // The stock floors (50 ms) would merge writes and slow every subscription of the tests.
    Subscription.minimumPublishingInterval = 1;
    MonitoredItem.minimumSamplingInterval = 1;

    const port = options.port === 0 ? await freePort() : options.port;
    fs.mkdirSync(options.pki, { recursive: true });
    const serverCertificateManager = new OPCUACertificateManager({
        rootFolder: path.join(options.pki, "server"),
        automaticallyAcceptUnknownCertificate: true,
    });
    const userCertificateManager = new OPCUACertificateManager({
        rootFolder: path.join(options.pki, "user"),
        automaticallyAcceptUnknownCertificate: true,
    });

    // Read once: the tests do not change their users while the server runs.
    const users = new Map();
    if (options.users)
        for (const line of fs.readFileSync(options.users, "utf8").split(/\r?\n/)) {
            const colon = line.indexOf(":");
            if (colon > 0) users.set(line.slice(0, colon), line.slice(colon + 1));
        }
    const secure = options.users !== null;

    const server = new OPCUAServer({
        port,
        host: "127.0.0.1",
        hostname: "127.0.0.1",
        alternateHostname: [],
        // None stays for the endpoint request that open62541 clients send before they secure
        // a channel; without anonymous access no session can be had over it.
        securityModes: secure ? [MessageSecurityMode.None, MessageSecurityMode.SignAndEncrypt] : [MessageSecurityMode.None],
        securityPolicies: secure ? [SecurityPolicy.None, SecurityPolicy.Basic256Sha256] : [SecurityPolicy.None],
        allowAnonymous: !secure,
        userManager: secure ? { isValidUser: (user, password) => users.get(user) === password } : undefined,
        disableDiscovery: true,
        registerServerMethod: 0, // hidden: no discovery server to register with
        serverCertificateManager,
        userCertificateManager,
        // Every test opens sessions of its own; the stock ten would run out.
        maxConnectionsPerEndpoint: 200,
        serverCapabilities: { minSupportedSampleRate: 0, maxSessions: 200 },
        buildInfo: { productName: "m2Types interop server", manufacturerName: "m2Types interop" },
    });
    await server.initialize();
    populate(server.engine.addressSpace, catalogue);
    await server.start();

    let stopping = false;
    const stop = async () => {
        if (stopping) return;
        stopping = true;
        try {
            await server.shutdown(0);
        } finally {
            process.exit(0);
        }
    };
    process.on("SIGTERM", stop);
    process.on("SIGINT", stop);
    process.stdout.write(`ready opc.tcp://127.0.0.1:${port}\n`);
}

main().catch((error) => {
    process.stderr.write(`server.js: ${error && error.stack ? error.stack : error}\n`);
    process.exit(1);
});
