// SIGKILL at random moments (--kills N) and before system calls: before those of a refresh that change files,
// or before every one of a sign-in and a refresh (--every-call). And the order of the calls that make a replacement
// outlast a power cut.
import assert from 'node:assert/strict';
import {existsSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync} from 'node:fs';
import {basename, join} from 'node:path';
import {describe, test} from 'node:test';
import {parseArgs} from 'node:util';

import {
    World, failed, filesBelow, filesWithSecrets, refusal, reply, signedIn, succeeded,
} from './session_lab.mjs';

const {values: {kills, 'every-call': everyCall}} = parseArgs({options: {
    kills: {type: 'string', default: '6'}, 'every-call': {type: 'boolean', default: false},
}});
const FILE_CALLS = ['fallocate', 'fsync', 'fdatasync', 'rename', 'renameat', 'renameat2', 'fchmod',
    'ftruncate', 'flock', 'pwrite64', 'write', 'mkdir', 'mkdirat', 'unlink', 'unlinkat'];
const PROBE = process.env.ORBA_SESSION_PROBE;
const BOOT_ID = '/proc/sys/kernel/random/boot_id'; // of the sandbox, where it can be written
const END = 3541; // seconds after which a token is at its end

// One device, whose services are killed one after the other.
class Victims {
    kills = 0;
    survivors = 0;
    faults = {'cut files': 0, 'files with another mode': 0, 'secrets elsewhere': 0,
        'that needed help': 0};
    #now = 0;

    static async create(t, scenario) {
        const victims = new Victims();
        victims.world = await signedIn(t);
        victims.scenario = scenario;
        victims.issued = new Set([victims.world.token.text]);
        const {cloud} = victims.world;
        cloud.script.token = async (request) => {
            const bytes = await cloud.answerTo('token', request);
            const [, text] = bytes.toString().split('\r\n\r\n');
            victims.issued.add(JSON.parse(text).access_token);
            return bytes;
        };
        return victims;
    }

    async #prepare() {
        if (this.scenario === 'refresh') this.#now += END;
        if (this.scenario === 'sign-in') rmSync(this.world.tokenFile, {force: true});
        await this.world.main.clock(this.#now);
    }

    // Whether a service that is to be killed, by its own timer or by strace (`command`), was; then
    // the next session makes its first call.
    async kill(more, command) {
        const {world} = this;
        const service = await this.spawn(more, command);
        const killed = await service.end() === 'SIGKILL';
        if (killed) this.kills += 1;
        else this.survivors += 1;
        this.#look();
        const answer = await (await world.open()).token();
        if (answer.what) this.#fault('that needed help', answer.what);
        const elsewhere = filesWithSecrets(world.root, world.cloud.secrets,
            [world.tokenFile, world.profileFile]);
        if (elsewhere.length) this.#fault('secrets elsewhere', elsewhere);
        this.#look();
        return killed;
    }

    #count = 0;

    async spawn(more, command = [PROBE]) {
        await this.#prepare();
        this.#count += 1;
        const {world} = this;
        const service = world.service({}, command);
        const session = `victim ${this.#count}`;
        const calls = [service.clock(this.#now),
            service.call('open', {session, settings: world.settings, inline: true}),
            service.call('token', {session, inline: true, ...more})];
        calls.forEach((call) => call.catch(() => {}));
        service.last = calls.at(-1);
        return service;
    }

    // Whether the token file is a whole one that the session has made, and all files are private.
    #look() {
        const {world} = this;
        for (const path of filesBelow(world.folder)) {
            const mode = statSync(path).mode & 0o7777;
            if (mode !== 0o600) this.#fault('files with another mode', `${path} ${mode.toString(8)}`);
        }
        if (!existsSync(world.tokenFile)) {
            if (this.scenario !== 'sign-in') this.#fault('cut files', 'missing');
            return;
        }
        try {
            const stored = world.stored();
            assert.ok(this.issued.has(stored.access_token) && stored.session);
        } catch (error) {
            this.#fault('cut files', error.message);
        }
    }

    #fault(kind, what) {
        this.faults[kind] += 1;
        console.log(`${this.scenario}, kill ${this.kills}: ${kind}: ${what}`);
    }

    report(title) {
        const faults = Object.entries(this.faults).map(([kind, count]) => `${kind}: ${count}`);
        console.log(`${title} ${this.scenario}: kills: ${this.kills}, ${faults.join(', ')}`);
        assert.deepEqual(Object.values(this.faults), [0, 0, 0, 0]);
        const strays = readdirSync('/tmp').filter((name) => /cookie/.test(name));
        assert.deepEqual(strays, []);
    }
}

describe('SIGKILL at a random moment', {concurrency: 3}, () => {
    const wanted = Math.ceil(Number(kills) / 3);
    for (const scenario of ['sign-in', 'refresh', 'good token at hand']) {
        test(`of a ${scenario} costs nothing`, async (t) => {
            const victims = await Victims.create(t, scenario);
            const durations = [];
            for (let n = 0; n < 3; n += 1) {
                const service = await victims.spawn();
                durations.push((await service.last).seconds);
                await service.end();
            }
            const longest = durations.sort((a, b) => a - b)[1] * 1e6;
            while (victims.kills < wanted && victims.survivors < 10 * wanted + 50) {
                await victims.kill({killAfter: Math.round(Math.random() * longest)});
            }
            assert.ok(victims.kills >= wanted, `only ${victims.kills} of ${wanted} came in time`);
            victims.report('random moments of a');
        });
    }
});

const strace = (...options) => ['strace', '-f', '-qq', ...options, PROBE];

// The system calls between the marks, as {name, text}; and how many of each name come before.
function readTrace(path) {
    const before = {};
    const calls = [];
    let inside = false;
    for (const line of readFileSync(path, 'utf8').split('\n')) {
        const [, name, text] = line.match(/^\d+ +(\w+)(\(.*)$/) ?? [];
        if (!name) continue;
        if (text.includes('"/mark/end"')) break;
        if (inside) calls.push({name, text});
        else before[name] = (before[name] ?? 0) + 1;
        if (text.includes('"/mark/begin"')) inside = true;
    }
    assert.ok(inside, 'the trace has no mark: is strace permitted here?');
    return {before, calls};
}

describe('SIGKILL before', () => {
    for (const scenario of everyCall ? ['sign-in', 'refresh'] : ['refresh']) {
        test(`each system call of a ${scenario} costs nothing`, async (t) => {
            const victims = await Victims.create(t, scenario);
            const log = join(victims.world.root, 'trace');
            assert.equal(await (await victims.spawn({mark: true}, strace('-o', log))).end(), 0);
            const {before, calls} = readTrace(log);
            rmSync(log);
            const names = [...new Set(calls.map(({name}) => name))]
                .filter((name) => everyCall || FILE_CALLS.includes(name));
            for (const name of names) {
                const inject = `inject=${name}:signal=SIGKILL:when=`;
                for (let n = (before[name] ?? 0) + 1; ; n += 1) {
                    const command = strace('-o', '/dev/null', '-e', `trace=${name}`,
                        '-e', `${inject}${n}`);
                    if (!await victims.kill({}, command)) break;
                }
            }
            const expected = calls.filter(({name}) => names.includes(name)).length;
            assert.ok(victims.kills > 0.8 * expected, `${victims.kills} of ${expected}`);
            victims.report(`before each of ${calls.length} system calls ` +
                `(${everyCall ? 'all' : 'those on files'}) of a`);
        });
    }
});

describe('Power cut', () => {
    // For each replacement of the token file: write, fsync, rename, fsync of the folder.
    function assertOrder(calls, world) {
        const steps = calls.map(({name, text}) => {
            const path = text.match(/<([^>]*)>/)?.[1] ?? '';
            if (/^p?write/.test(name) && path.endsWith('/reserve')) return 'write';
            if (name === 'ftruncate' && path.endsWith('/reserve')) return 'write';
            if (/^f(data)?sync$/.test(name) && path.endsWith('/reserve')) return 'fsync';
            if (/^f(data)?sync$/.test(name) && path === world.folder) return 'fsync of the folder';
            if (/^rename/.test(name) && text.includes(`${basename(world.tokenFile)}"`)) return 'rename';
            return undefined;
        }).filter(Boolean);
        const squeezed = steps.filter((step, n) => step !== steps[n - 1]);
        const renames = [...squeezed.keys()].filter((n) => squeezed[n] === 'rename');
        renames.forEach((at) => assert.deepEqual(squeezed.slice(Math.max(0, at - 2), at + 2),
            ['write', 'fsync', 'rename', 'fsync of the folder']));
        return renames.length;
    }

    for (const [what, scenario, prepare] of [
        ['sign-in', 'sign-in'],
        ['refresh', 'refresh'],
        ['refused refresh token', 'refresh', ({world}) => {
            world.cloud.script.token = ({form}) =>
                (form.refresh_token ? refusal('invalid_grant') : undefined);
        }],
    ]) {
        test(`leaves the old or the new tokens of a ${what}`, async (t) => {
            const victims = await Victims.create(t, scenario);
            const {world} = victims;
            prepare?.(victims);
            const log = join(world.root, 'trace');
            await (await victims.spawn({mark: true}, strace('-y', '-o', log))).end();
            const {calls} = readTrace(log);
            const renames = assertOrder(calls, world);
            assert.equal(renames, what === 'refused refresh token' ? 2 : 1);
            // The space is taken, and lasts, before anything is asked.
            const names = calls.map(({name, text}) => `${name} ${text}`);
            const allocated = names.findIndex((one) => /^fallocate .*reserve/.test(one));
            const synced = names.findIndex((one, n) => n > allocated && /^f(data)?sync .*reserve/.test(one));
            const asked = names.findIndex((one) => /^connect .*AF_INET/.test(one));
            assert.ok(allocated >= 0 && allocated < synced && synced < asked,
                `${[allocated, synced, asked]}`);
            console.log(`power cut: ${what}: write, fsync, rename, fsync of the folder: ${renames}`);
        });
    }

    test('leaves the newer tokens, too, when a killed process had not renamed them', async (t) => {
        const victims = await Victims.create(t, 'refresh');
        const log = join(victims.world.root, 'trace');
        const command = strace('-o', '/dev/null', '-e', 'trace=rename,renameat,renameat2',
            '-e', 'inject=rename,renameat,renameat2:signal=SIGKILL:when=1');
        assert.equal(await (await victims.spawn({}, command)).end(), 'SIGKILL');
        const former = victims.world.stored();
        const service = victims.world.service({}, strace('-y', '-o', log));
        await service.clock(END);
        const session = await victims.world.open({}, {service});
        const {text} = succeeded(await session.token({mark: true, inline: true}));
        await service.end();
        assert.notEqual(text, former.access_token);
        assert.equal(victims.world.stored().access_token, text);
        assert.equal(assertOrder(readTrace(log).calls, victims.world), 1);
        assert.deepEqual(victims.world.cloud.take(), ['token']);
    });

    test('begins a wait anew, once, since nobody knows how long it was dark', async (t) => {
        const world = await World.create(t);
        world.cloud.script.auth = reply(503, {headers: ['Retry-After: 100']});
        failed(await (await world.open()).token(), {retryAfter: 100});
        const former = readFileSync(BOOT_ID, 'utf8');
        t.after(() => writeFileSync(BOOT_ID, former));
        writeFileSync(BOOT_ID, former.replace(/^./, (digit) => (digit === 'a' ? 'b' : 'a')));
        const service = world.service();
        const session = await world.open({}, {service});
        for (const [boottime, left] of [[50, 100], [110, 40], [149, 1]]) {
            await service.clock(50, boottime); // the new boot is older than the former one
            const {retryAfter} = failed(await session.token(), {code: 17});
            assert.ok(retryAfter <= left && retryAfter > left - 5, `${retryAfter}, not ${left}`);
        }
        assert.equal(world.cloud.count('auth'), 1);
        world.cloud.script = {};
        await service.clock(50, 151);
        succeeded(await session.token());
    });
});
