// When the next request may be made: after Retry-After or a back-off, from any process and in spite of
// the clock.
import assert from 'node:assert/strict';
import {after, describe, test} from 'node:test';

import {World, failed, refusal, reply, signedIn, succeeded} from './session_lab.mjs';

const ALL = {concurrency: 4};
const YEARS = 10 * 31_556_952;
const figures = {early: 0, late: 0};
after(() => console.log(`requests before the wait is over: ${figures.early}, ` +
    `waits longer than the length: ${figures.late}`));

// A world with a session whose sign-in was answered so.
async function refused(t, answer, world, settings) {
    world ??= await World.create(t);
    world.cloud.script.auth = answer;
    const session = await world.open(settings);
    const failure = failed(await session.token(), {});
    world.cloud.take();
    delete world.cloud.script.auth;
    return {world, session, failure, length: failure.retryAfter};
}

// A session of another process whose clocks are ahead so much.
async function elsewhere(world, realtime, boottime) {
    const service = world.service();
    await service.clock(realtime, boottime);
    return world.open({}, {service});
}

async function mustWait(world, session, left, failure) {
    const again = failed(await session.token(), {code: failure.code, remedy: failure.remedy});
    figures.early += world.cloud.take().length;
    figures.late += again.retryAfter > failure.retryAfter ? 1 : 0;
    assert.ok(Math.abs(again.retryAfter - left) <= 2, `${again.retryAfter}, not ${left}`);
    assert.deepEqual([figures.early, figures.late], [0, 0]);
}

describe('Retry-After', ALL, () => {
    const date = (seconds) => new Date(Date.now() + seconds * 1000).toUTCString();
    const rows = [
        ['in seconds', () => ['Retry-After: 100'], 100],
        ['of one second', () => ['Retry-After: 1'], 1],
        ['of 0 seconds: back-off', () => ['Retry-After: 0'], 1, 2],
        ['of a day: one hour', () => ['Retry-After: 86400'], 3600],
        ['of a number that no type holds: one hour',
            () => ['Retry-After: 99999999999999999999999'], 3600],
        ['as a date without the reply\'s own: back-off', () => [`Retry-After: ${date(100)}`], 1, 2],
        ['as a date, from the reply\'s own',
            () => [`Date: ${date(-YEARS)}`, `Retry-After: ${date(100 - YEARS)}`], 99, 101],
        ['as a date ahead of a day: one hour',
            () => [`Date: ${date(0)}`, `Retry-After: ${date(86400)}`], 3600],
        ['as a date in the past: back-off', () => [`Retry-After: ${date(-100)}`], 1, 2],
        ['that is negative: back-off', () => ['Retry-After: -5'], 1, 2],
        ['that makes no sense: back-off', () => ['Retry-After: soon'], 1, 2],
        ['that is missing: back-off', () => [], 1, 2],
    ];
    test('is kept to', async (t) => {
        const world = await World.create(t);
        for (const [n, [what, headers, low, high = low]] of rows.entries()) {
            await t.test(what, async () => {
                const {length, session} = await refused(t, reply(503, {headers: headers()}), world,
                    {tokenFile: `${world.folder}/${n}.json`});
                assert.ok(length >= low && length <= high, `${length}`);
                await world.main.clock(length - 1.5 > 0 ? Math.floor(length - 1.5) : 0);
                figures.early += (await session.token(), world.cloud.take().length);
                assert.equal(figures.early, 0);
                await world.main.clock(length);
                succeeded(await session.token());
                world.cloud.take();
                await world.main.clock(0);
            });
        }
    });

    for (const [where, name, answer] of [
        ['a 429 of the token endpoint', 'token', reply(429, {headers: ['Retry-After: 77']})],
        ['an error of the token endpoint', 'token',
            refusal('slow_down', 400, ['Retry-After: 77'])],
        ['a 200 that makes no sense', 'token',
            reply(200, {body: 'x', headers: ['Retry-After: 77']})],
        ['a redirect\'s 503', 'resume', reply(503, {headers: ['retry-after: 77']})],
    ]) {
        test(`of ${where} holds, too`, async (t) => {
            const world = await World.create(t);
            world.cloud.script[name] = answer;
            failed(await (await world.open()).token(), {retryAfter: 77});
        });
    }
});

describe('The wait', ALL, () => {
    const answer = reply(503, {headers: ['Retry-After: 100']});

    test('holds in other sessions, processes and after a restart', async (t) => {
        const {world, session, failure} = await refused(t, answer);
        await mustWait(world, session, 100, failure);
        await mustWait(world, await world.open(), 100, failure);
        await mustWait(world, await elsewhere(world, 0, 0), 100, failure);
        await session.close();
        await world.main.end();
        await mustWait(world, await elsewhere(world, 40, 40), 60, failure);
        succeeded(await (await elsewhere(world, 101, 101)).token());
    });

    for (const years of [-YEARS, YEARS]) {
        test(`holds when the clock is set by ${years / 31_556_952} years`, async (t) => {
            const {world, session, failure} = await refused(t, answer);
            await world.main.clock(years, 0);
            await mustWait(world, session, 100, failure);
            await world.main.clock(years, 60);
            await mustWait(world, session, 40, failure);
            await mustWait(world, await elsewhere(world, years, 0), 100, failure);
            await mustWait(world, await elsewhere(world, years, 98), 2, failure);
            succeeded(await (await elsewhere(world, years, 101)).token());
        });
    }

    test('that another clock ended with is not longer than its length', async (t) => {
        const {world, failure} = await refused(t, answer);
        await mustWait(world, await elsewhere(world, 0, -86_400), 100, failure);
    });

    test('is not counted for other settings', async (t) => {
        const {world} = await refused(t, answer);
        succeeded(await (await world.open({scope: 'openid'})).token());
    });

    test('does not hold for a token at hand', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = answer;
        await world.main.clock(3541);
        failed(await world.session.token(), {code: 17});
        const service = world.service();
        succeeded(await (await world.open({}, {service})).token());
    });

    test('is over after signOut()', async (t) => {
        const {world, session} = await refused(t, answer);
        await session.signOut();
        succeeded(await session.token());
        assert.deepEqual(world.cloud.take(), ['auth', 'login', 'resume', 'token']);
    });

    test('and is not begun by failures before a request', async (t) => {
        const world = await World.create(t);
        const {account, ...unlinked} = world.cloud.profile();
        world.link(unlinked);
        const session = await world.open();
        failed(await session.token(), {code: 19, retryAfter: 0});
        world.link({...unlinked, account});
        succeeded(await session.token());
    });
});

describe('The back-off', ALL, () => {
    for (const [what, script, last] of [
        ['doubles from 2 s to 5 min', {auth: reply(500)}, 300],
        ['for who must link the account, to 60 s', {auth: ({query: {state}}) => reply(302, {headers: [
            `Location: https://fleet-lens.localhost/callback?error=access_denied&state=${state}`]})},
        60],
    ]) {
        test(what, async (t) => {
            const world = await World.create(t);
            Object.assign(world.cloud.script, script);
            const session = await world.open();
            let now = 0;
            const lengths = [];
            for (let n = 0; n < 14; n += 1) {
                const {retryAfter} = failed(await session.token(), {});
                lengths.push(retryAfter);
                const bound = Math.min(last, 2 ** (n + 1));
                assert.ok(retryAfter >= 1 && retryAfter <= bound, `${n}: ${retryAfter}`);
                now += retryAfter;
                await world.main.clock(now);
            }
            assert.equal(world.cloud.count('auth'), 14);
            assert.ok(Math.max(...lengths) > last / 4, `${lengths}`);
            world.cloud.script = {};
            succeeded(await session.token());
            await world.main.clock(now + 3541);
            world.cloud.script.token = reply(500);
            const {retryAfter} = failed(await session.token(), {});
            assert.ok(retryAfter <= 2, 'a success begins anew');
        });
    }

    test('is drawn: not all devices come back at once', async (t) => {
        const lengths = await Promise.all(Array.from({length: 6}, async () => {
            const world = await World.create(t);
            world.cloud.script.auth = reply(500);
            const session = await world.open();
            let now = 0;
            for (let n = 0; n < 4; n += 1) {
                await world.main.clock(now);
                now += failed(await session.token(), {}).retryAfter;
            }
            return now;
        }));
        assert.ok(new Set(lengths).size > 1, `${lengths}`);
    });
});
