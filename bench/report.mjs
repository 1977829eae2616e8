#!/usr/bin/env node
// Prints the results of a run and how they compare with their targets; on demand brings docs/ up to date.
//
// usage: node report.mjs RESULTS [--update-docs]
//
// The exit status is 1 when a target is missed.
import {readFileSync, writeFileSync} from 'node:fs';
import {fileURLToPath} from 'node:url';

import {sessionChecks, sessionRows} from './session/session.mjs';

const [resultsFile, option] = process.argv.slice(2);
const results = {threads: [], signIn: [], session: [], ...JSON.parse(readFileSync(resultsFile, 'utf8'))};
const MIB = 1 << 20;

// A ratio says how much more ours takes than bare: time, memory, or the growth of either.
const TARGET = 1.05;
const TLS_TARGET = 1.02;
const EXPONENT_TARGET = 1.1; // 1 is linear, 2 quadratic
const MEMORY_GRAIN = MIB / 4; // a process's memory comes in pages and arenas
const INSTRUCTIONS_TARGET = 20000;
// The limits of the short run, which may share its machine: processor time shows additional work, and
// time only additional waiting.
const FAR_OFF = 1.25;
const STALLED = 2;
const FEWEST = 6; // with fewer values no interval would hold the median in 95 of 100 cases

// ---- Texts ---------------------------------------------------------------------------------------

const UNITS = [[1, 's'], [1e-3, 'ms'], [1e-6, 'us'], [1e-9, 'ns']];

function time(seconds) {
    const [unit, name] = UNITS.find(([least]) => seconds >= least) ?? [1, 's'];
    return `${(seconds / unit).toPrecision(3)} ${name}`;
}

function size(bytes) {
    const power = bytes >= MIB ? 2 : bytes >= 1024 ? 1 : 0;
    return `${+(bytes / 1024 ** power).toFixed(1)} ${['B', 'KiB', 'MiB'][power]}`;
}

const whole = (number) => Math.round(number).toString().replace(/\B(?=(\d{3})+$)/g, ',');
const unique = (values) => [...new Set(values)];
const withRatio = (figure, ratio) => `${figure} (${ratio.median.toFixed(3)})`;

function table(head, lines) {
    const widths = head.map((title, i) => Math.max(1, title.length, ...lines.map((line) => line[i].length)));
    const show = (cells) => `| ${cells.map((cell, i) =>
        (i === 0 ? cell.padEnd(widths[i]) : cell.padStart(widths[i]))).join(' | ')} |`;
    const rule = widths.map((width, i) => (i === 0 ? '-'.repeat(width) : `${'-'.repeat(width - 1)}:`));
    return [show(head), show(rule), ...lines.map(show)].join('\n');
}

// One row for each value of `down`, one column for each value of `across`.
function matrix(title, records, down, across, show) {
    const columns = unique(records.map(across));
    return table([title, ...columns], unique(records.map(down)).map((row) => [row, ...columns.map((column) => {
        const record = records.find((one) => down(one) === row && across(one) === column);
        return record ? show(record) : '';
    })]));
}

// ---- Tables --------------------------------------------------------------------------------------

const PHASES = [['tls', 'CA bundle and TLS'], ['server', 'server'], ['connect', 'connect'], ['name', 'name'],
    ['receive', 'receive'], ['rest', 'rest']];
const steps = results.signIn.map((step) => ({
    ...step, rest: step.total - PHASES.slice(0, -1).reduce((sum, [phase]) => sum + step[phase], 0),
}));

const pairTable = (title, records, across) =>
    matrix(title, records, ({operation}) => operation, across, ({ours, ratio}) => withRatio(time(ours), ratio));

const interval = ({low, high}) => `${low.toFixed(3)} to ${high.toFixed(3)}`;

const tables = {
    requests: pairTable('Operation', results.requests, ({transport}) => transport),
    replies: pairTable('Time', results.replies, ({bytes}) => size(bytes)),
    memory: matrix('Peak memory', results.memory, ({operation}) => operation, ({bytes}) => size(bytes),
        ({ours, bare}) => `${size(ours)} (bare ${size(bare)})`),
    texts: pairTable('Text', results.texts, ({bytes}) => size(bytes)),
    threads: matrix('Threads', results.threads, ({count}) => String(count), ({variant}) => variant,
        ({ours, ratio}) => withRatio(`${whole(ours)}/s`, ratio)),
    instructions: table(
        ['Operation', 'library', 'syslog', 'whole, ours', 'whole, bare', 'allocations, ours', 'allocations, bare'],
        results.instructions.map(({operation, ours, bare}) => [operation,
            ...[ours.own, ours.syslog, ours.total, bare.total, ours.allocations, bare.allocations].map(whole)])),
    signIn: table(['', ...steps.map(({step}) => step)], [
        ['TLS connections', ...steps.map(({connections}) => String(connections))],
        ...[['total', 'whole'], ...PHASES].map(([phase, title]) =>
            [title, ...steps.map((step) => time(step[phase]))]),
    ]),
    session: table(['Session', ''], results.session.flatMap((session) => sessionRows(session, {time, interval}))),
};

// ---- Targets -------------------------------------------------------------------------------------

// A target within the interval is neither met nor missed.
function judge({count, low, high}, limit) {
    if (count >= FEWEST && high <= limit) return 'held';
    return count >= FEWEST && low > limit ? 'MISSED' : 'unclear';
}

const verdict = (held) => (held ? 'held' : 'MISSED');

// [what, measured, target, verdict]
function pairCheck(what, {ratio, processorRatio}, limit = TARGET) {
    if (!results.short) return [what, interval(ratio), `<= ${limit}`, judge(ratio, limit)];
    const stalled = judge(ratio, STALLED) === 'MISSED';
    return [what, `${interval(processorRatio)} (processor)`, `<= ${FAR_OFF}`,
        stalled ? 'MISSED' : judge(processorRatio, FAR_OFF)];
}

// How a figure grows with the size: the exponent between the smallest size and the largest.
function growthCheck(what, records) {
    if (records.length < 2) return [];
    const [first, last] = [records[0], records.at(-1)];
    const exponent = Math.log(last.ours / first.ours) / Math.log(last.bytes / first.bytes);
    return [[`${what}, growth from ${size(first.bytes)} to ${size(last.bytes)}`, `size^${exponent.toFixed(2)}`,
        `size^${EXPONENT_TARGET}`, verdict(exponent <= EXPONENT_TARGET)]];
}

function memoryCheck({operation, bytes, ours, bare}) {
    const limit = operation === 'get(Json)' ? bare : bare + MEMORY_GRAIN;
    return [`${operation}, peak memory, ${size(bytes)}`, size(ours), `<= ${size(limit)}`, verdict(ours <= limit)];
}

function instructionChecks({operation, ours, bare}) {
    const ratio = ours.total / bare.total;
    const process = [`${operation}, instructions of the process`, ratio.toFixed(3), `<= ${FAR_OFF}`,
        verdict(ratio <= FAR_OFF)];
    return operation !== 'get(Json)' ? [process] : [process, ['get(Json), instructions of the library',
        whole(ours.own), `< ${whole(INSTRUCTIONS_TARGET)}`,
        verdict(ours.own > 0 && ours.own < INSTRUCTIONS_TARGET)]];
}

const checks = [
    ...results.requests.map((pair) => pairCheck(`${pair.operation}, ${pair.transport}`, pair,
        pair.transport.startsWith('HTTPS') ? TLS_TARGET : TARGET)),
    ...results.replies.map((pair) => pairCheck(`get(Json), reply of ${size(pair.bytes)}`, pair)),
    ...growthCheck('get(Json), time', results.replies.filter(({bytes}) => bytes >= MIB)),
    ...results.memory.map(memoryCheck),
    ...growthCheck('get(Json), peak memory', results.memory.filter(({operation}) => operation === 'get(Json)')),
    ...results.texts.map((pair) => pairCheck(`${pair.operation}, ${size(pair.bytes)}`, pair)),
    ...unique(results.texts.map(({operation}) => operation)).flatMap((operation) =>
        growthCheck(operation, results.texts.filter((pair) => pair.operation === operation && pair.bytes > 10))),
    ...results.threads.map(({variant, count, ratio}) =>
        [`threads: ${count}, ${variant}`, interval(ratio), `<= ${TARGET}`, judge(ratio, TARGET)]),
    ...results.instructions.flatMap(instructionChecks),
    ...results.session.flatMap((session) => sessionChecks(session, {time, interval, judge, verdict})),
];

// ---- docs/ ---------------------------------------------------------------------------------------

function updateDocs() {
    const page = fileURLToPath(new URL('../docs/performance.md', import.meta.url));
    let text = readFileSync(page, 'utf8');
    for (const [name, content] of Object.entries({machine: results.machine, ...tables})) {
        const place = new RegExp(`(<!-- measured: ${name} -->\n)[^]*?(<!-- end -->)`);
        if (!place.test(text)) throw new Error(`docs/performance.md has no place for ${name}`);
        text = text.replace(place, (_, begin, end) => `${begin}${content}\n${end}`);
    }
    writeFileSync(page, text);
}

const shown = Object.keys(tables).filter((name) => results[name].length > 0).map((name) => tables[name]);
console.log([...shown, table(['Target', 'measured', '', ''], checks)].join('\n\n'));
const count = (wanted) => checks.filter(([, , , held]) => held === wanted).length;
console.log(`\n${count('held')} targets held, ${count('MISSED')} missed, ${count('unclear')} unclear ` +
    `(the target lies within the interval). ${results.machine}`);
if (option === '--update-docs') updateDocs();
process.exitCode = count('MISSED') === 0 ? 0 : 1;
