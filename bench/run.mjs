#!/usr/bin/env node
// Runs the benchmarks in the private environment and writes the results to a file.
//
// usage: node run.mjs PROGRAM BUNDLE RESULTS [--short]
//
// PROGRAM is orba-bench, with orba-bench-session beside it; BUNDLE is a copy of the machine's CA bundle.
// --short measures less, and less exactly, in a fraction of the time.
import {spawn, spawnSync} from 'node:child_process';
import {existsSync, mkdirSync, readFileSync, writeFileSync} from 'node:fs';
import {cpus, loadavg} from 'node:os';
import {setTimeout as pause} from 'node:timers/promises';
import {fileURLToPath} from 'node:url';

import {readCallgrind} from './callgrind.mjs';
import {measureSession} from './session/session.mjs';

const KIB = 1 << 10;
const MIB = 1 << 20;
const COUNTED_REQUESTS = 20;
const THREAD_REPETITIONS = '15';
const SIGN_INS = 60;
const WARM_UPS = 3; // further sign-ins, which fill caches on both sides
const REQUESTS = ['get(Json)', 'get(false)', 'get(true)', 'postURLEncodedString',
    'getServerLoginChallenge', 'getAccessToken', 'refreshAccessToken'];
const TEXTS = ['decodeString', 'getParamFromURL', 'getEncodeQuery'];

const FULL = {
    transports: ['HTTP', 'HTTP, debug lines off', 'HTTPS, 1 CA', 'HTTPS, all CAs'],
    replies: [KIB, 64 * KIB, MIB, 16 * MIB, 64 * MIB], memory: [MIB, 16 * MIB, 64 * MIB],
    texts: [10, 16 * KIB, MIB], counted: REQUESTS, requestSeconds: '4', textSeconds: '0.6',
};
const SHORT = {
    transports: ['HTTP', 'HTTPS, 1 CA'], replies: [MIB], memory: [4 * MIB], texts: [10, MIB],
    counted: ['get(Json)'], requestSeconds: '1', textSeconds: '0.3',
};

const [program, machineBundle, resultsFile, option] = process.argv.slice(2);
const plan = option === '--short' ? SHORT : FULL;
const folder = '/tmp/orba-bench-run';
const bundle = `${folder}/bundle.crt`;
const background = [];
let servers;

// The median, and the ranks between which the true median lies in 95 of 100 cases.
function spread(values) {
    const sorted = [...values].sort((a, b) => a - b);
    const [median, low, high] = [0, -0.98, 0.98].map((offset) => {
        const rank = Math.min(1, Math.max(0, 0.5 + offset / Math.sqrt(sorted.length))) * (sorted.length - 1);
        const [below, above] = [sorted[Math.floor(rank)], sorted[Math.ceil(rank)]];
        return below + (rank - Math.floor(rank)) * (above - below);
    });
    return {count: sorted.length, median, low, high};
}
const medians = ({ours, bare}) => ({ours: spread(ours).median, bare: spread(bare).median});

// Programs that measure get one processor for themselves, servers another.
const [, list] = readFileSync('/proc/self/status', 'utf8').match(/^Cpus_allowed_list:\s*(\S+)/m);
const processors = list.split(',').flatMap((range) => {
    const [first, last = first] = range.split('-').map(Number);
    return Array.from({length: last - first + 1}, (_, i) => first + i);
});

async function start(readyFile, ...command) {
    const child = spawn('taskset', ['-c', String(processors.at(-1)), ...command],
        {stdio: ['ignore', 'ignore', 'inherit']});
    background.push(child);
    while (!existsSync(readyFile)) {
        if (child.exitCode !== null) throw new Error(`${command.join(' ')} did not start`);
        await pause(10);
    }
}

function measured(env, ...command) {
    const {status, signal, error, stdout, stderr} = spawnSync(
        'taskset', ['-c', String(processors[0]), ...command], {
            env: {...process.env, ORBA_BENCH_BASE: servers.http, ORBA_BENCH_FOLDER: folder,
                ORBA_HOST_PROFILE: `${folder}/device.json`, ...env},
            encoding: 'utf8', maxBuffer: 1 << 28,
        });
    if (error || status !== 0) {
        throw new Error(`${command.join(' ')} failed (${error?.message ?? signal ?? status})\n${stderr ?? ''}`);
    }
    return stdout;
}

const bench = (env, ...args) => JSON.parse(measured(env, program, ...args));

function pairs(env, seconds, operations) {
    return bench(env, 'pairs', seconds, ...operations).map((pair) => ({
        operation: pair.operation,
        ...medians(pair),
        ratio: spread(pair.ratios),
        processorRatio: spread(pair.processorRatios),
    }));
}

function requests() {
    const environments = {
        'HTTP': {},
        'HTTP, debug lines off': {ORBA_BENCH_QUIET: '1'},
        'HTTPS, 1 CA': {ORBA_BENCH_BASE: servers.https},
        'HTTPS, all CAs': {ORBA_BENCH_BASE: servers.https, ORBA_BENCH_BUNDLE: bundle},
    };
    return plan.transports.flatMap((transport) =>
        pairs(environments[transport], plan.requestSeconds, REQUESTS)
            .map((pair) => ({...pair, transport})));
}

const replies = () => plan.replies.map((bytes) =>
    ({...pairs({}, plan.requestSeconds, [`reply ${bytes}`])[0], operation: 'get(Json)', bytes}));

const texts = () => plan.texts.flatMap((bytes) =>
    pairs({}, plan.textSeconds, TEXTS.map((name) => `${name} ${bytes}`))
        .map((pair, i) => ({...pair, operation: TEXTS[i], bytes})));

function memory() {
    const grown = (side, kind, bytes) => bench({}, 'once', side, `${kind} ${bytes}`, '1');
    return [['get(Json)', 'reply'], ['get(false)', 'discard']].flatMap(([operation, kind]) =>
        plan.memory.map((bytes) => ({
            operation, bytes, ours: grown('ours', kind, bytes), bare: grown('bare', kind, bytes),
        })));
}

function threads() {
    const variants = [['prompt server', 'get(Json)', {}],
        ['prompt server, debug lines off', 'get(Json)', {ORBA_BENCH_QUIET: '1'}],
        ['waiting server', 'wait', {}]];
    return variants.flatMap(([variant, operation, env]) => JSON.parse(measured(
        env, 'taskset', '-c', list, program, 'threads', '0.2', THREAD_REPETITIONS, operation))
        .map((result) => ({
            variant, count: result.threads, ...medians(result),
            ratio: spread(result.bare.map((rate, i) => rate / result.ours[i])),
        })));
}

function counts(side, operation) {
    const out = `${folder}/callgrind.out`;
    // Bound at start, so that the loader's search for symbols is not counted.
    measured({LD_BIND_NOW: '1'}, 'valgrind', '--tool=callgrind', '--instr-atstart=no',
        '--compress-strings=no', '--compress-pos=no', `--callgrind-out-file=${out}`,
        program, 'once', side, operation, String(COUNTED_REQUESTS));
    return readCallgrind(out, COUNTED_REQUESTS);
}

const instructions = () => plan.counted.map((operation) =>
    ({operation, ours: counts('ours', operation), bare: counts('bare', operation)}));

// Means of the middle half of the runs by total, so that the phases add up to it.
function signIn() {
    const results = bench({
        ORBA_BENCH_BUNDLE: bundle,
        ORBA_AUTHORIZATION_ENDPOINT: servers.authorizationEndpoint,
        ORBA_TOKEN_ENDPOINT: servers.tokenEndpoint,
        ORBA_BENCH_WEB_PROFILE: `${folder}/web.json`,
        ORBA_BENCH_GRANT_PROFILE: `${folder}/grant.json`,
    }, 'sign-in', String(SIGN_INS + WARM_UPS));
    return [...new Set(results.map(({step}) => step))].map((step) => {
        const runs = results.filter((result) => result.step === step).slice(WARM_UPS)
            .sort((a, b) => a.total - b.total);
        const middle = runs.slice(Math.floor(runs.length / 4), Math.ceil((runs.length * 3) / 4));
        const means = Object.keys(middle[0]).filter((key) => key !== 'step')
            .map((phase) => [phase, middle.reduce((sum, run) => sum + run[phase], 0) / middle.length]);
        return {step, ...Object.fromEntries(means)};
    });
}

const session = () => measureSession(`${program}-session`, {measured, spread, list, folder, bundle, servers});

function machine() {
    const output = (...command) => measured({}, ...command).trim();
    const [, system] = readFileSync('/etc/os-release', 'utf8').match(/^PRETTY_NAME="(.*)"$/m);
    const libraries = ['libcurl', 'openssl', 'jsoncpp'].map((name) =>
        `${name} ${output('pkg-config', '--modversion', name)}`);
    const certificates = readFileSync(bundle, 'utf8').split('BEGIN CERT').length - 1;
    return `${cpus().length} cores (${cpus()[0].model}), ${system}; ${libraries.join(', ')}, ` +
        `g++ ${output('g++', '-dumpfullversion')}, Node.js ${process.version.slice(1)}; "all CAs" are ` +
        `${certificates}. Private environment: ${process.env.ORBA_SANDBOX_KIND}. ` +
        `Load when it began: ${loadavg()[0].toFixed(2)}.`;
}

async function run() {
    mkdirSync(folder);
    writeFileSync(bundle, [machineBundle, process.env.ORBA_CA_CERT].map((file) => readFileSync(file)).join(''));
    writeFileSync(`${folder}/device.json`,
        JSON.stringify({serial_number: 'ORBA-0123456789', user_agent: 'OrbaNAS/7.2'}));
    await start('/tmp/devlog.sock', program, 'syslog', '/tmp/devlog.sock');
    await start(`${folder}/servers.json`, process.execPath,
        fileURLToPath(new URL('server.mjs', import.meta.url)), folder);
    servers = JSON.parse(readFileSync(`${folder}/servers.json`, 'utf8'));
    const results = {short: plan === SHORT, machine: machine()};
    const parts = {requests, replies, texts, memory, instructions};
    if (plan === FULL) Object.assign(parts, {threads, signIn, session});
    for (const [name, measure] of Object.entries(parts)) {
        console.error(`scripts/bench: ${name}`);
        results[name] = measure();
    }
    writeFileSync(resultsFile, JSON.stringify(results, null, 1));
}

run().catch((error) => {
    console.error(`scripts/bench: ${error.message}`);
    process.exitCode = 1;
}).finally(() => background.forEach((child) => child.kill('SIGTERM')));
