// The commands of the documents work: every `sh` block is run in the checkout. Blocks that cannot be
// run everywhere (a journal, a device) are marked `console`.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {existsSync, readFileSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';

import {blocks, documents, root} from './markdown.mjs';

const TIMEOUT = 300_000; // of one block, in ms
// A `text` block that follows is what the commands print; "..." matches anything.
const run = documents.flatMap((path) => blocks(path).map((block, index, all) => ({
    ...block, path, printed: all[index + 1]?.language === 'text' ? all[index + 1].text : '',
}))).filter(({language}) => language === 'sh');

const pattern = (printed) => new RegExp(
    printed.split('...').map((text) => text.replace(/[^\w\s]/g, '\\$&')).join('.*'));

// Leaves out scripts that run this very test, run for long, or have a test of their own; they must exist.
function withoutLongOnes(text) {
    return text.split('\n').filter((line) => {
        const script = line.match(/^scripts\/(test|check|bench|fuzz|package|demo(?! --))\b/)?.[0];
        assert.ok(!script || existsSync(join(root, script)), `there is no ${script}`);
        return !script;
    }).join('\n');
}

// In its own process group, which is killed when it takes too long.
function bash(text) {
    return new Promise((resolve) => {
        const shell = spawn('bash', ['-euo', 'pipefail', '-c', text], {
            cwd: root, detached: true, stdio: ['ignore', 'pipe', 'pipe'],
            env: {...process.env, SHELL: '/bin/bash'},
        });
        let both = '';
        for (const stream of [shell.stdout, shell.stderr]) stream.on('data', (data) => (both += data));
        const timer = setTimeout(() => process.kill(-shell.pid, 'SIGKILL'), TIMEOUT);
        shell.on('close', (code, signal) => {
            clearTimeout(timer);
            resolve({status: signal ?? code, both});
        });
    });
}

for (const {path, line, text, printed} of run) {
    test(`${path}:${line} runs`, async () => {
        const {status, both} = await bash(withoutLongOnes(text));
        assert.equal(status, 0, both);
        assert.match(both, pattern(printed));
    });
}

// "GET /auth?..." and "L->>O: GET /auth/... (cookies)" are both "GET /auth", one level down "/auth/*".
function shape(method, target) {
    return `${method} ${target.replace(/^[\w.]+/, '').replace(/\?.*/, '').replace(/(?<=^\/auth\/).+/, '*')}`;
}

test("the guide's diagrams show the requests of the demo, in their order", () => {
    const shown = [...readFileSync(`${process.env.ORBA_BUILT}/demo.txt`, 'utf8').matchAll(/^ +\d+\. (GET|POST) (\S+)$/gm)]
        .map(([, method, target]) => shape(method, target));
    const drawn = blocks('docs/guide.md').filter(({language}) => language === 'mermaid')
        .flatMap(({text}) => [...text.matchAll(/: (GET|POST) (\/\S+)/g)])
        .map(([, method, target]) => shape(method, target));
    // The demo's third part is the beginning of its first.
    assert.deepEqual(drawn, shown.slice(0, 8));
});
