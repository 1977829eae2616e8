#!/usr/bin/env node
// Runs the simulation of a fleet and prints a table in Markdown.
//
// usage: node fleet.mjs PROGRAM [--update-docs]
//
// PROGRAM is orba-bench-fleet. --update-docs puts the table into docs/session-fleet.md, and a
// picture of its first half into docs/images.
import {spawnSync} from 'node:child_process';
import {mkdirSync, readFileSync, writeFileSync} from 'node:fs';
import {fileURLToPath} from 'node:url';

const SETTINGS = [['1000000', '5000', '1'], ['100000', '500', '3']];
const COLOURS = ['#c0392b', '#1f6fb2', '#8e44ad', '#2e8b57'];
const WIDTH = 760;
const PANEL = {left: 78, width: 650, height: 190};
const END = 400; // seconds shown

const [program, option] = process.argv.slice(2);

const runs = SETTINGS.map((setting) => {
    const {status, stdout, stderr} = spawnSync(program, setting, {encoding: 'utf8', maxBuffer: 1 << 28});
    if (status !== 0) throw new Error(`${program} failed: ${stderr}`);
    return stdout.trim().split('\n').map((line) => JSON.parse(line));
});

// ---- Table ---------------------------------------------------------------------------------------

const whole = (number) => Math.round(number).toString().replace(/\B(?=(\d{3})+$)/g, ',');

function row({way, devices, rate, seconds, signedIn, requests, requestsBySecond}) {
    const share = signedIn / devices;
    return [way, share >= 0.99 ? `${whole(seconds)} s` : `${(share * 100).toFixed(1)} % in ${whole(seconds)} s`,
        (requests / devices).toFixed(1), `${(Math.max(...requestsBySecond) / rate).toFixed(1)} times`];
}

function table(ways) {
    const [{devices, rate, requestsPerSignIn}] = ways;
    const lines = [[`${whole(devices)} devices, ${whole(rate)} requests/s, ${requestsPerSignIn} per sign-in`,
        '99 % signed in after', 'requests per device', 'highest load / rate'], ...ways.map(row)];
    const widths = lines[0].map((_, i) => Math.max(...lines.map((line) => line[i].length)));
    const show = (cells) => `| ${cells.map((cell, i) => cell.padEnd(widths[i])).join(' | ')} |`;
    return [show(lines[0]), show(widths.map((width) => '-'.repeat(width))), ...lines.slice(1).map(show)].join('\n');
}

const tables = runs.map(table).join('\n\n');

// ---- Picture -------------------------------------------------------------------------------------

const x = (second) => PANEL.left + (second / END) * PANEL.width;

function text(left, top, content, more = '') {
    return `<text x="${left.toFixed(1)}" y="${top.toFixed(1)}" ${more}>${content}</text>`;
}

function line(points, colour, more = '') {
    const path = points.map(([left, top]) => `${left.toFixed(1)},${top.toFixed(1)}`).join(' ');
    return `<polyline points="${path}" fill="none" stroke="${colour}" stroke-width="1.6" ${more}/>`;
}

// One panel: title, grid, and a curve for each way. `y` gives the share of the height.
function panel(top, title, ticks, y, curve) {
    const at = (value) => top + PANEL.height * (1 - y(value));
    const right = PANEL.left + PANEL.width;
    return [
        text(PANEL.left, top - 10, title, 'font-weight="bold"'),
        ...ticks.map(([value, label]) => line([[PANEL.left, at(value)], [right, at(value)]], '#ddd') +
            text(PANEL.left - 6, at(value) + 4, label, 'text-anchor="end"')),
        ...[0, 100, 200, 300, 400].map((second) =>
            text(x(second), top + PANEL.height + 16, `${second} s`, 'text-anchor="middle"')),
        ...runs[0].map((way, i) => line(curve(way).slice(0, END).map((value, second) =>
            [x(second + 0.5), at(value)]), COLOURS[i])),
    ].join('\n');
}

function svg() {
    const [{devices, rate}] = runs[0];
    const decades = [1e2, 1e3, 1e4, 1e5, 1e6].map((value) => [value, whole(value)]);
    const load = (value) => Math.max(0, (Math.log10(Math.max(value, 1)) - 2) / 4.4);
    const limit = 40 + PANEL.height * (1 - load(rate));
    const shares = [0, 0.25, 0.5, 0.75, 1].map((share) => [share * devices, `${share * 100} %`]);
    return `<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 ${WIDTH} 580" font-family="sans-serif" font-size="12">
<rect width="100%" height="100%" fill="white"/>
${panel(40, `Requests per second (the server serves ${whole(rate)})`, decades, load, (way) => way.requestsBySecond)}
${line([[PANEL.left, limit], [PANEL.left + PANEL.width, limit]], 'black', 'stroke-dasharray="5 4"')}
${panel(300, `Devices signed in, of ${whole(devices)}`, shares, (value) => value / devices, (way) => way.signedInBySecond)}
${runs[0].map(({way}, i) => line([[90 + i * 165, 545], [115 + i * 165, 545]], COLOURS[i]) +
        text(120 + i * 165, 549, way)).join('\n')}
</svg>
`;
}

console.log(tables);
if (option === '--update-docs') {
    const docs = fileURLToPath(new URL('../../docs/', import.meta.url));
    const page = `${docs}session-fleet.md`;
    mkdirSync(`${docs}images`, {recursive: true});
    writeFileSync(`${docs}images/fleet.svg`, svg());
    const before = readFileSync(page, 'utf8');
    const place = /(<!-- measured: fleet -->\n)[^]*?(<!-- end -->)/;
    if (!place.test(before)) throw new Error('docs/session-fleet.md has no place for fleet');
    writeFileSync(page, before.replace(place, (_, begin, end) => `${begin}${tables}\n${end}`));
}
