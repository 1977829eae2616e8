// Drives the probe program: the library's operations as asynchronous calls.
//
//     const probe = startProbe({ORBA_HOST_PROFILE: profile});
//     const answer = await probe.get({client: 'a', url, cookies, follow: false});
//     await probe.end();
//
// An answer has `result`, or `class`, `code` and `text` of the exception; `seconds`; `printed`, what
// the library wrote to standard output; and, for a client, its `status` and `redirectUrl`.
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {createInterface} from 'node:readline';

export function startProbe(env = {}) {
    const program = process.env.ORBA_PROBE;
    if (!program) throw new Error('ORBA_PROBE does not name the probe program');
    const child = spawn(program, {
        env: {...process.env, ...env},
        stdio: ['pipe', 'pipe', 'inherit'],
    });
    const exited = once(child, 'exit');
    const waiting = [];
    createInterface({input: child.stdout}).on('line', (line) => {
        waiting.shift().resolve(JSON.parse(line));
    });
    child.on('error', (error) => waiting.splice(0).forEach(({reject}) => reject(error)));
    child.on('exit', (code, signal) => {
        const error = new Error(`the probe ended with ${signal ?? code}`);
        waiting.splice(0).forEach(({reject}) => reject(error));
    });

    function call(op, request) {
        child.stdin.write(`${JSON.stringify({op, ...request})}\n`);
        return new Promise((resolve, reject) => waiting.push({resolve, reject}));
    }

    async function end() {
        child.stdin.end();
        const [code, signal] = await exited;
        if (code !== 0) throw new Error(`the probe ended with ${signal ?? code}`);
    }

    // `then` is left out, so that a probe may be the result of an asynchronous function.
    return new Proxy({end, then: undefined}, {
        get: (own, op) => (op in own ? own[op] : (request) => call(op, request)),
    });
}
