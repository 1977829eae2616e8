// The processes that the benchmarks talk to, and how the measuring ones are started.
import {spawn, spawnSync} from 'node:child_process';
import {existsSync, readFileSync} from 'node:fs';
import {setTimeout as pause} from 'node:timers/promises';
import {fileURLToPath} from 'node:url';

const beside = (name) => fileURLToPath(new URL(name, import.meta.url));
export const readJson = (path) => JSON.parse(readFileSync(path, 'utf8'));

// Measuring processes get one processor for themselves, what they talk to gets another.
function allowedProcessors() {
    const [, list] = readFileSync('/proc/self/status', 'utf8').match(/^Cpus_allowed_list:\s*(\S+)/m);
    return list.split(',').flatMap((range) => {
        const [first, last = first] = range.split('-').map(Number);
        return Array.from({length: last - first + 1}, (_, i) => first + i);
    });
}

const processors = allowedProcessors();
export const CLIENT_PROCESSOR = String(processors[0]);
export const SERVER_PROCESSOR = String(processors.at(-1));
export const ALL_PROCESSORS = processors.join(',');

const background = [];

// Starts a server and waits for the file that it makes when it is ready.
async function start(readyFile, command, ...args) {
    const child = spawn('taskset', ['-c', SERVER_PROCESSOR, command, ...args], {
        stdio: ['ignore', 'ignore', 'inherit'],
    });
    child.ended = new Promise((resolve) => child.once('exit', resolve));
    background.push(child);
    while (!existsSync(readyFile)) {
        if (child.exitCode !== null) throw new Error(`${args[0]} did not start`);
        await pause(10);
    }
    return child;
}

export async function stop(child) {
    child.kill('SIGTERM');
    await child.ended;
}

export const stopAll = () => Promise.all(background.map(stop));

export function startSyslogSink() {
    return start('/tmp/devlog.sock', 'perl', beside('syslog-sink.pl'), '/tmp/devlog.sock');
}

export async function startServer(folder) {
    const ready = `${folder}/server.json`;
    await start(ready, process.execPath, beside('server.mjs'), ready);
    return readJson(ready);
}

export async function startCloud(folder) {
    const ready = `${folder}/cloud.json`;
    const child = await start(ready, process.execPath, beside('cloud.mjs'), folder);
    return {...readJson(ready), child};
}

// Runs a program to its end and returns what it printed.
export function measured(processor, env, command, ...args) {
    const {status, signal, error, stdout, stderr} = spawnSync(
        'taskset', ['-c', processor, command, ...args],
        {env: {...process.env, ...env}, encoding: 'utf8', maxBuffer: 1 << 28});
    if (error || status !== 0) {
        throw new Error(`${command} ${args.join(' ')} failed (${error?.message ?? signal ?? status})` +
            `\n${stderr ?? ''}`);
    }
    return stdout;
}
