// The commands of the documents work: every `sh` block is run in the checkout. Blocks that cannot be
// run everywhere (a journal, a device) are marked `console`.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {existsSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';

import {blocks, documents, root} from './markdown.mjs';

const TIMEOUT = 300_000; // the demo may have to build first
// A `text` block that follows is what the commands print; "..." matches anything.
const run = documents.flatMap((path) => blocks(path).map((block, index, all) => ({
    ...block, path, printed: all[index + 1]?.language === 'text' ? all[index + 1].text : '',
}))).filter(({language}) => language === 'sh');

const pattern = (printed) => new RegExp(
    printed.split('...').map((text) => text.replace(/[^\w\s]/g, '\\$&')).join('.*'));

// Scripts that run this very test, or run for long, are run elsewhere; here they must exist.
function withoutLongOnes(text) {
    return text.split('\n').filter((line) => {
        const script = line.match(/^scripts\/(test|check|bench|fuzz|package)\b/)?.[0];
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
        const output = {stdout: '', both: ''};
        shell.stdout.on('data', (data) => {
            output.stdout += data;
            output.both += data;
        });
        shell.stderr.on('data', (data) => (output.both += data));
        const timer = setTimeout(() => process.kill(-shell.pid, 'SIGKILL'), TIMEOUT);
        shell.on('close', (code, signal) => {
            clearTimeout(timer);
            resolve({status: signal ?? code, ...output});
        });
    });
}

let demo;

// The demo, which several documents begin with, is run once for all of them.
function runOnce(text) {
    if (text.replace(/ +#.*/, '').trim() !== 'scripts/demo') return bash(text);
    return (demo ??= bash(text));
}

for (const {path, line, text, printed} of run) {
    test(`${path}:${line} runs`, async () => {
        const {status, both} = await runOnce(withoutLongOnes(text));
        assert.equal(status, 0, both);
        assert.match(both, pattern(printed));
    });
}

// "GET /auth?..." and "L->>O: GET /auth/... (cookies)" are both "GET /auth", one level down "/auth/*".
function shape(method, target) {
    return `${method} ${target.replace(/^[\w.]+/, '').replace(/\?.*/, '').replace(/(?<=^\/auth\/).+/, '*')}`;
}

test("the guide's diagrams show the requests of the demo, in their order", async () => {
    const {status, stdout} = await runOnce('scripts/demo');
    assert.equal(status, 0, stdout);
    const shown = [...stdout.matchAll(/^ +\d+\. (GET|POST) (\S+)$/gm)]
        .map(([, method, target]) => shape(method, target));
    const drawn = blocks('docs/guide.md').filter(({language}) => language === 'mermaid')
        .flatMap(({text}) => [...text.matchAll(/: (GET|POST) (\/\S+)/g)])
        .map(([, method, target]) => shape(method, target));
    // The demo's third part is the beginning of its first.
    assert.deepEqual(drawn, shown.slice(0, 8));
});
