#!/usr/bin/env node
// Runs all benchmarks, in the private environment, and writes what they found to one file.
//
// usage: node run.mjs PROGRAMS BUNDLE RESULTS [--short]
//
// PROGRAMS is the folder of the benchmark programs, BUNDLE a copy of the machine's CA bundle,
// RESULTS the file. --short measures less, and less exactly, in a small part of the time.
import {once} from 'node:events';
import {appendFileSync, copyFileSync, mkdirSync, readFileSync, writeFileSync} from 'node:fs';
import {get} from 'node:http';
import {cpus} from 'node:os';
import {join} from 'node:path';
import {text} from 'node:stream/consumers';

import {readCallgrind} from './callgrind.mjs';
import {
    ALL_PROCESSORS, CLIENT_PROCESSOR, measured, readJson, startCloud, startServer, startSyslogSink,
    stop, stopAll,
} from './servers.mjs';

const MIB = 1 << 20;
const COUNTED_REQUESTS = 20;
// For the processor time that a server spends on a request.
const SERVED_REQUESTS = 400;

const FULL = {
    requests: '^((request|control)/.*/(HTTP|HTTPS, .*)|' +
        'request/(get.Json.|postURLEncodedString)/HTTP, debug lines off)/',
    requestSeconds: 2,
    replies: '^reply/',
    replySeconds: 2,
    texts: '^text/',
    textSeconds: 0.3,
    threadRepetitions: 15,
    threadSeconds: 0.2,
    memoryBytes: [MIB / 1024, MIB / 64, MIB, 4 * MIB, 16 * MIB, 64 * MIB],
    counted: ['get(Json)', 'get(false)', 'postURLEncodedString', 'getServerLoginChallenge',
        'getAccessToken', 'refreshAccessToken'],
    signIns: 60,
};

const SHORT = {
    requests: '^(request/(get.Json.|postURLEncodedString)/(HTTP|HTTPS, 1 CA)|control/bare twice/HTTP)/',
    requestSeconds: 0.5,
    replies: '^reply/get.Json./(1024|1048576)/',
    replySeconds: 0.5,
    texts: '^text/.*/(10|1048576)/',
    textSeconds: 0.05,
    threadRepetitions: 0,
    memoryBytes: [4 * MIB],
    counted: ['get(Json)'],
    signIns: 3,
};

const [programs, bundle, resultsFile, option] = process.argv.slice(2);
const plan = option === '--short' ? SHORT : FULL;
const folder = '/tmp/orba-bench-run';
const environment = {ORBA_BENCH_BUNDLE: `${folder}/bundle.crt`};

const say = (line) => process.stderr.write(`scripts/bench: ${line}\n`);

// ---- What Google Benchmark times ----------------------------------------------------------------

function timed(processor, filter, seconds, ...more) {
    const out = `${folder}/timed.json`;
    measured(processor, environment, join(programs, 'orba-bench'), `--benchmark_filter=${filter}`,
        `--benchmark_min_time=${seconds}`, `--benchmark_out=${out}`, ...more);
    const {context, benchmarks} = readJson(out);
    const failed = benchmarks.find((benchmark) => benchmark.error_occurred);
    if (failed) throw new Error(`${failed.name}: ${failed.error_message}`);
    if (benchmarks.length === 0) throw new Error(`no benchmark matches ${filter}`);
    return {context, benchmarks};
}

function pairs(filter, seconds) {
    return timed(CLIENT_PROCESSOR, filter, seconds).benchmarks.map((benchmark) => {
        const [group, operation, detail] = benchmark.run_name.split('/');
        const {ours, bare, pairs: count} = benchmark;
        const spread = (figure) => Object.fromEntries([['count', count],
            ...['median', 'q1', 'q3', 'low', 'high'].map((name) => [name, benchmark[`${figure}_${name}`]])]);
        return {
            group, operation, detail, ours, bare,
            ratio: spread('time'), processorRatio: spread('processor'),
        };
    });
}

function threads() {
    const {threadRepetitions: repetitions, threadSeconds: seconds} = plan;
    if (repetitions === 0) return [];
    const {benchmarks} = timed(ALL_PROCESSORS, '^threads/', seconds,
        `--benchmark_repetitions=${repetitions}`, '--benchmark_enable_random_interleaving=true');
    return benchmarks.filter(({run_type: type}) => type === 'iteration').map((benchmark) => {
        const [, server, side] = benchmark.run_name.split('/');
        const {threads: count, repetition_index: repetition} = benchmark;
        return {server, side, threads: count, repetition, perSecond: benchmark.items_per_second};
    });
}

// ---- What is counted in a process of its own ----------------------------------------------------

const inOwnProcess = (base, ...args) => measured(
    CLIENT_PROCESSOR, {ORBA_BENCH_BASE: base}, join(programs, 'orba-bench-once'), ...args);

function memory(server) {
    const runs = [['ours', 'reply'], ['bare', 'reply'], ['ours', 'discard'], ['bare', 'discard']];
    return plan.memoryBytes.flatMap((bytes) => runs.map(([side, kind]) => (
        {side, kind, bytes, peak: Number(inOwnProcess(server.http, side, kind, String(bytes)))})));
}

function counts(server, side, operation) {
    const out = `${folder}/callgrind.out`;
    // Bound at start, so that the loader's search for symbols is not counted.
    measured(CLIENT_PROCESSOR, {ORBA_BENCH_BASE: server.http, LD_BIND_NOW: '1'}, 'valgrind',
        '--tool=callgrind', '--instr-atstart=no', '--compress-strings=no', '--compress-pos=no',
        `--callgrind-out-file=${out}`, join(programs, 'orba-bench-once'), side, operation,
        String(COUNTED_REQUESTS));
    return readCallgrind(out, COUNTED_REQUESTS);
}

function instructions(server) {
    return plan.counted.map((operation) => ({
        operation,
        ours: counts(server, 'ours', operation),
        bare: counts(server, 'bare', operation),
    }));
}

async function serverSeconds(server, base) {
    // Without an agent: a kept connection would be closed while a program is measured.
    const usage = async () => {
        const [response] = await once(get(`${server.http}/usage`, {agent: false}), 'response');
        return Number(await text(response));
    };
    const spent = async (requests) => {
        const before = await usage();
        inOwnProcess(base, 'bare', 'get(Json)', String(requests));
        return (await usage()) - before;
    };
    await spent(SERVED_REQUESTS); // until V8 has compiled what is called often
    const few = await spent(0);
    return (await spent(SERVED_REQUESTS) - few) / SERVED_REQUESTS / 1e6;
}

// ---- Sign-in ------------------------------------------------------------------------------------

async function signIn() {
    const cloud = await startCloud(folder);
    const output = measured(CLIENT_PROCESSOR, {
        ...environment,
        ORBA_AUTHORIZATION_ENDPOINT: cloud.authorizationEndpoint,
        ORBA_TOKEN_ENDPOINT: cloud.tokenEndpoint,
        ORBA_BENCH_WEB_PROFILE: `${folder}/web.json`,
        ORBA_BENCH_GRANT_PROFILE: `${folder}/grant.json`,
    }, join(programs, 'orba-bench-signin'), String(plan.signIns));
    await stop(cloud.child);
    return {
        steps: output.trim().split('\n').map((line) => JSON.parse(line)),
        requests: readJson(`${folder}/requests.json`),
    };
}

// ---- All ----------------------------------------------------------------------------------------

function machine(context) {
    const [, system] = readFileSync('/etc/os-release', 'utf8').match(/^PRETTY_NAME="(.*)"$/m);
    return {
        processors: cpus().length,
        model: cpus()[0].model,
        system,
        libcurl: context.libcurl,
        jsoncpp: context.jsoncpp,
        compiler: context.compiler,
        node: process.version,
        bundleCertificates: readFileSync(environment.ORBA_BENCH_BUNDLE, 'utf8').split('BEGIN CERT').length - 1,
        sandbox: process.env.ORBA_SANDBOX_KIND,
        load: readFileSync('/proc/loadavg', 'utf8').split(' ')[0],
    };
}

async function run() {
    mkdirSync(folder);
    copyFileSync(bundle, environment.ORBA_BENCH_BUNDLE);
    appendFileSync(environment.ORBA_BENCH_BUNDLE, readFileSync(process.env.ORBA_CA_CERT));
    const profile = `${folder}/device.json`;
    writeFileSync(profile, JSON.stringify({serial_number: 'ORBA-0123456789', user_agent: 'OrbaNAS/7.2'}));

    await startSyslogSink();
    const server = await startServer(folder);
    Object.assign(environment, {
        ORBA_BENCH_HTTP: server.http, ORBA_BENCH_HTTPS: server.https, ORBA_HOST_PROFILE: profile,
    });
    process.env.ORBA_HOST_PROFILE = profile;

    const {context} = timed(CLIENT_PROCESSOR, '^text/errCode2Str', 0.01);
    const results = {short: plan === SHORT, machine: machine(context)};
    say('requests');
    results.requests = pairs(plan.requests, plan.requestSeconds);
    say('replies');
    results.replies = pairs(plan.replies, plan.replySeconds);
    results.memory = memory(server);
    say('texts');
    results.texts = pairs(plan.texts, plan.textSeconds);
    say('threads');
    results.threads = threads();
    say('instructions and allocations');
    results.instructions = instructions(server);
    say('sign-in');
    results.serverSeconds = {
        http: await serverSeconds(server, server.http),
        https: await serverSeconds(server, server.https),
    };
    results.signIn = await signIn();
    writeFileSync(resultsFile, JSON.stringify(results, null, 1));
}

run().catch((error) => {
    say(error.message);
    process.exitCode = 1;
}).finally(stopAll);
