#!/usr/bin/env node
// Prints the table of a run, draws the plots, and on demand brings the docs up to date.
//
// usage: node report.mjs RESULTS PLOTS [--update-docs]
//
// The exit status is 1 when a target is missed.
import {execFileSync} from 'node:child_process';
import {copyFileSync, mkdirSync, readFileSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {fileURLToPath} from 'node:url';

import {PHASES, memoryPairs, rows, signInSteps, time, whole} from './summary.mjs';

const beside = (name) => fileURLToPath(new URL(name, import.meta.url));

const [resultsFile, plots, option] = process.argv.slice(2);
const results = JSON.parse(readFileSync(resultsFile, 'utf8'));

const COLUMNS = {
    what: 'What', ours: 'Ours', bare: 'Bare', ratio: 'Ratio (95 % interval)',
    processor: 'of processor time', target: 'Target',
    held: '',
};

// ---- Tables --------------------------------------------------------------------------------------

function table(head, lines) {
    const widths = head.map((title, i) => Math.max(title.length, ...lines.map((line) => line[i].length)));
    const show = (cells) => `| ${cells.map((cell, i) =>
        (i === 0 ? cell.padEnd(widths[i]) : cell.padStart(widths[i]))).join(' | ')} |`;
    const rule = widths.map((width, i) => (i === 0 ? '-'.repeat(width) : `${'-'.repeat(width - 1)}:`));
    return [show(head), show(rule), ...lines.map(show)].join('\n');
}

function resultTable() {
    const keys = Object.keys(COLUMNS);
    return table(Object.values(COLUMNS), rows(results).map((row) => keys.map((key) => row[key] ?? '')));
}

function instructionTable() {
    const head = ['Operation', 'library', 'syslog', 'platform', 'jsoncpp', 'libcurl',
        'whole, ours', 'whole, bare', 'allocations, ours', 'allocations, bare'];
    return table(head, results.instructions.map(({operation, ours, bare}) => [
        operation,
        ...['own', 'syslog', 'platform', 'jsoncpp', 'libcurl'].map((by) => whole(ours.instructions[by])),
        whole(ours.total), whole(bare.total), whole(ours.allocations), whole(bare.allocations),
    ]));
}

function signInTable() {
    const steps = signInSteps(results);
    const head = ['', ...steps.map(({step}) => step)];
    const line = (title, figure) => [title, ...steps.map(figure)];
    return table(head, [
        line('whole', ({total}) => time(total)),
        ...PHASES.map((phase) => line(phase, ({seconds}) => time(seconds[phase]))),
        line('TLS connections', ({connections}) => String(connections)),
        line('processor time of the server', ({serverSeconds}) => time(serverSeconds)),
    ]);
}

const FLEET = 1000;

function fleetTable() {
    const {http, https} = results.serverSeconds;
    const steps = signInSteps(results);
    const devices = (figure) => steps.map((step) => figure(step));
    const head = [`${whole(FLEET)} devices`, ...steps.map(({step}) => step)];
    return `${table(head, [
        ['TLS handshakes', ...devices(({connections}) => whole(FLEET * connections))],
        ['processor time of the loopback cloud',
            ...devices(({serverSeconds}) => time(FLEET * serverSeconds))],
        ['within one minute: share of one processor',
            ...devices(({serverSeconds}) => `${Math.round((100 * FLEET * serverSeconds) / 60)} %`)],
    ])}\n\nA small reply costs the benchmark's own server ${time(http)} of processor time over plain ` +
        `HTTP and ${time(https)} over HTTPS, each on a connection of its own.`;
}

function machineText() {
    const {machine} = results;
    const libcurl = machine.libcurl.split(' ');
    const versions = [libcurl[0], libcurl.find((part) => part.startsWith('OpenSSL')),
        `jsoncpp/${machine.jsoncpp}`, `g++/${machine.compiler}`, `Node.js/${machine.node.slice(1)}`];
    return `${machine.processors} cores (${machine.model}), ${machine.system}; ${versions.join(', ')}; ` +
        `"all CAs" are ${machine.bundleCertificates}. Private environment: ${machine.sandbox}. ` +
        `Load when it began: ${machine.load}.`;
}

// ---- Plots ---------------------------------------------------------------------------------------

const quoted = (text) => `"${text}"`;
const lines = (records) => `${records.map((record) => record.join(' ')).join('\n')}\n`;

// A file for each transport; places from top to bottom in the order of the operations.
function ratioData() {
    const transports = [...new Set(results.requests.map(({detail}) => detail))];
    const operations = [...new Set(results.requests.map(({operation}) => operation))];
    return transports.map((transport, i) => [`ratios-${i}.dat`, lines([
        [quoted('operation'), 'row', quoted(transport)],
        ...results.requests.filter(({detail}) => detail === transport).map(({operation, ratio}) => {
            const row = -operations.indexOf(operation);
            return [quoted(operation), row, row - 0.16 * (i - (transports.length - 1) / 2),
                ratio.median, ratio.q1, ratio.q3, ratio.low, ratio.high];
        }),
    ])]);
}

function draw() {
    const steps = signInSteps(results);
    mkdirSync(plots, {recursive: true});
    const write = (name, text) => writeFileSync(join(plots, name), text);
    for (const [name, text] of ratioData()) write(name, text);
    write('reply-time.dat', lines(results.replies.map(({detail, ours, bare}) => [detail, ours, bare])));
    write('reply-memory.dat', lines(memoryPairs(results).filter(({kind}) => kind === 'reply')
        .map(({detail, ours, bare}) => [detail, ours, bare])));
    write('sign-in.dat', lines([['step', ...PHASES].map(quoted), ...steps.map(({step, seconds}) =>
        [quoted(step), ...PHASES.map((phase) => 1e3 * seconds[phase])])]));
    execFileSync('gnuplot', [beside('plots.gp')], {cwd: plots, stdio: ['ignore', 'inherit', 'inherit']});
}

// ---- Docs ----------------------------------------------------------------------------------------

function updateDocs() {
    const page = beside('../docs/performance.md');
    const parts = {
        machine: machineText(), results: resultTable(), instructions: instructionTable(),
        'sign-in': signInTable(), fleet: fleetTable(),
    };
    let text = readFileSync(page, 'utf8');
    for (const [name, content] of Object.entries(parts)) {
        const place = new RegExp(`(<!-- measured: ${name} -->\n)[^]*?(<!-- end -->)`);
        if (!place.test(text)) throw new Error(`docs/performance.md has no place for ${name}`);
        text = text.replace(place, (_, begin, end) => `${begin}${content}\n${end}`);
    }
    writeFileSync(page, text);
    mkdirSync(beside('../docs/images'), {recursive: true});
    for (const name of ['ratios.svg', 'replies.svg', 'sign-in.svg']) {
        copyFileSync(join(plots, name), beside(`../docs/images/${name}`));
    }
}

console.log(resultTable());
const verdicts = rows(results).map(({held}) => held);
const count = (verdict) => verdicts.filter((held) => held === verdict).length;
console.log(`\n${count('held')} targets held, ${count('MISSED')} missed, ${count('unclear')} unclear ` +
    `(the interval reaches across the target). ${machineText()}`);
if (!results.short) draw();
if (option === '--update-docs') updateDocs();
process.exitCode = count('MISSED') === 0 ? 0 : 1;
