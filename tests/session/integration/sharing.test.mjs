// 8 threads in each of 8 processes that share a token file. With --seconds N, how long tokens of two
// seconds are used.
import assert from 'node:assert/strict';
import {describe, test} from 'node:test';
import {parseArgs} from 'node:util';

import {World, failed, hang, reply, signedIn, sleep, succeeded} from './session_lab.mjs';

const {values} = parseArgs({options: {seconds: {type: 'string', default: '3'}}});
const SECONDS = Number(values.seconds);
const WEB = ['auth', 'login', 'resume', 'token'];

async function eightProcesses(world, {clock = 0, settings} = {}) {
    return Promise.all(Array.from({length: 8}, async () => {
        const service = world.service();
        await service.clock(clock);
        return world.open(settings, {service});
    }));
}

async function allAtOnce(sessions) {
    const answers = await Promise.all(sessions.map((session) => session.token({threads: 8})));
    return answers.flatMap(({all}) => all);
}

const textsOf = (answers) => new Set(answers.map((answer) => succeeded(answer).text));

describe('8 threads in each of 8 processes', () => {
    test('that find the token at its end refresh once', async (t) => {
        const world = await signedIn(t);
        const answers = await allAtOnce(await eightProcesses(world, {clock: 3541}));
        assert.equal(answers.length, 64);
        assert.equal(textsOf(answers).size, 1);
        assert.deepEqual(world.cloud.take(), ['token']);
        console.log('64 callers at the token\'s end: token requests: 1');
    });

    test('that find no token sign in once', async (t) => {
        const world = await World.create(t);
        assert.equal(textsOf(await allAtOnce(await eightProcesses(world))).size, 1);
        assert.deepEqual(world.cloud.take(), WEB);
    });

    test('whose server answers 503 ask once, and all fail', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = reply(503);
        const answers = await allAtOnce(await eightProcesses(world, {clock: 3541}));
        answers.forEach((answer) => failed(answer, {code: 17, remedy: 'tryLater'}));
        assert.deepEqual(world.cloud.take(), ['token']);
        console.log(`64 callers and a 503: token requests: 1, failures: ${answers.length}`);
    });

    test(`use tokens of 2 s for ${SECONDS} s: one request for each, no failure`, async (t) => {
        const world = await World.create(t, {lifetime: 2});
        const [issued, used] = [[], new Set()];
        world.cloud.script.token = async (request) => {
            const bytes = await world.cloud.answerTo('token', request);
            issued.push(JSON.parse(bytes.toString().split('\r\n\r\n')[1]).access_token);
            return bytes;
        };
        const sessions = await eightProcesses(world);
        const end = performance.now() + SECONDS * 1000;
        let calls = 0;
        await Promise.all(sessions.map(async (session) => {
            while (performance.now() < end) {
                const {all} = await session.token({threads: 8});
                textsOf(all).forEach((text) => used.add(text));
                all.forEach(({expires}) => assert.ok(expires > Date.now() / 1000 - 1));
                calls += all.length;
                await sleep(25);
            }
        }));
        assert.deepEqual([...used].sort(), [...issued].sort());
        assert.equal(world.cloud.count('token'), issued.length);
        assert.equal(world.cloud.count('auth'), 1);
        assert.ok(issued.length >= SECONDS / 2 && issued.length <= SECONDS + 1, `${issued.length}`);
        console.log(`64 callers for ${SECONDS} s with tokens of 2 s: ${calls} calls, ` +
            `${issued.length} tokens, ${world.cloud.count('token')} token requests, 0 failures`);
    });

    test('of different settings share the file and still succeed', async (t) => {
        const world = await World.create(t);
        const one = await world.open();
        const other = await world.open({clientId: 'fleet-lens-2'}, {service: world.service()});
        for (const session of [one, other, one]) {
            succeeded(await session.token());
        }
        textsOf(await allAtOnce([one, other]));
    });
});

describe('A holder of the lock', {concurrency: 4}, () => {
    test('that is killed hands it on', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = hang;
        const service = world.service();
        await service.clock(3541);
        const dying = (await world.open({}, {service})).token().catch(() => 'killed');
        while (world.cloud.count('token') < 2) await sleep(5);
        const service2 = world.service();
        await service2.clock(3541);
        const waiting = (await world.open({}, {service: service2})).token();
        await sleep(150);
        delete world.cloud.script.token;
        await service.kill();
        succeeded(await waiting);
        assert.equal(await dying, 'killed');
    });

    test('keeps others no longer than their timeout, 39', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = hang;
        const service = world.service();
        await service.clock(3541);
        const first = (await world.open({timeout: 3000}, {service})).token();
        while (world.cloud.count('token') < 2) await sleep(5);
        const service2 = world.service();
        await service2.clock(3541);
        const second = await world.open({timeout: 1000}, {service: service2});
        const {seconds} = failed(await second.token(), {code: 39, remedy: 'tryLater', retryAfter: 0});
        assert.ok(seconds < 1.6, `${seconds}`);
        failed(await first, {remedy: 'tryLater'});
    });
});
