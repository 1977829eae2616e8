import assert from 'node:assert/strict';
import {existsSync, mkdirSync, rmSync} from 'node:fs';
import {describe, test} from 'node:test';

import {
    SCOPE, World, cut, failed, hang, json, refusal, reply, signedIn, sleep, succeeded,
} from './session_lab.mjs';

const WEB = ['auth', 'login', 'resume', 'token'];
const ALL = {concurrency: 4};

describe('A good token', ALL, () => {
    test('costs no request, in no session and no process', async (t) => {
        const {world, session, token, cloud} = Object.assign({}, await own(t));
        for (let n = 0; n < 100; n += 1) assert.equal((await session.token()).text, token.text);
        const other = await world.open({}, {service: world.service()});
        const answer = succeeded(await other.token());
        assert.deepEqual([answer.text, answer.scope], [token.text, token.scope]);
        assert.ok(Math.abs(answer.expires - token.expires) < 0.01);
        assert.deepEqual(cloud.take(), []);
    });

    test('is read without lock and work folder', async (t) => {
        const {world, token} = await own(t);
        rmSync(world.work, {recursive: true});
        assert.equal(succeeded(await (await world.open()).token()).text, token.text);
        assert.ok(!existsSync(world.work));
    });

    for (const years of [-10, 10]) {
        test(`stays good in a session when the clock is set by ${years} years`, async (t) => {
            const {world, session, token, cloud} = await own(t);
            await world.main.clock(years * 31_556_952, 0);
            assert.equal(succeeded(await session.token()).text, token.text);
            await world.main.clock(years * 31_556_952, 2700);
            assert.equal(succeeded(await session.token()).text, token.text);
            assert.deepEqual(cloud.take(), []);
        });
    }

    test('of a file is not believed when it would end later than it can', async (t) => {
        const {world, cloud} = await own(t);
        const service = world.service();
        await service.clock(-31_556_952, 0);
        succeeded(await (await world.open({}, {service})).token());
        assert.deepEqual(cloud.take(), ['token']);
    });
});

// `signedIn` with the world under its own name.
async function own(t, options) {
    const world = await signedIn(t, options);
    return {world, cloud: world.cloud, session: world.session, token: world.token};
}

describe('Early renewal', ALL, () => {
    // Of 3540 s before the margin, the last 20 to 10 % begin between 2820 and 3186 s.
    const EARLY = 3300;

    test('begins in the last 10 to 20 % before the margin, at another point each time', async (t) => {
        const {world, token, cloud} = await own(t);
        cloud.script.token = reply(503);
        const begins = [];
        while (begins.length < 8) {
            rmSync(`${world.work}/gate`, {force: true});
            const session = await world.open();
            let at = 2700;
            for (; cloud.take().length === 0 && at < 3400; at += 20) {
                await world.main.clock(at);
                assert.equal(succeeded(await session.token()).text, token.text);
            }
            begins.push(at - 20);
        }
        assert.ok(begins.every((at) => at >= 2820 && at <= 3200), `${begins}`);
        assert.ok(new Set(begins).size > 2, `${begins}`);
        await world.main.clock(EARLY);
        rmSync(`${world.work}/gate`);
        delete cloud.script.token;
        assert.notEqual(succeeded(await (await world.open()).token()).text, token.text);
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('that fails gives the token at hand, and closes the gate', async (t) => {
        const {world, session, token, cloud} = await own(t);
        cloud.script.token = reply(503, {headers: ['Retry-After: 20']});
        await world.main.clock(EARLY);
        for (const requests of [['token'], []]) {
            assert.equal(succeeded(await session.token()).text, token.text);
            assert.deepEqual(cloud.take(), requests);
        }
        await world.main.clock(EARLY + 25);
        delete cloud.script.token;
        assert.notEqual(succeeded(await session.token()).text, token.text);
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('is done by one while others go on with the token at hand', async (t) => {
        const {world, session, token, cloud} = await own(t);
        let release;
        const held = new Promise((resolve) => (release = resolve));
        cloud.script.token = async () => (await held, undefined);
        await world.main.clock(EARLY);
        const first = session.token();
        while (cloud.count('token') < 2) await sleep(5);
        const elsewhere = world.service();
        await elsewhere.clock(EARLY);
        const others = [session, await world.open({}, {service: elsewhere})];
        for (const one of others) assert.equal(succeeded(await one.token()).text, token.text);
        release();
        const renewed = succeeded(await first);
        assert.notEqual(renewed.text, token.text);
        await sleep(150);
        for (const one of others) {
            assert.equal(succeeded(await one.token()).text, renewed.text);
        }
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('never signs in; a refused refresh token is taken out of the file', async (t) => {
        const {world, session, token, cloud} = await own(t);
        cloud.revokeAll();
        await world.main.clock(EARLY);
        for (const requests of [['token'], []]) {
            assert.equal(succeeded(await session.token()).text, token.text);
            assert.deepEqual(cloud.take(), requests);
        }
        assert.equal(world.stored().refresh_token, undefined);
        assert.equal(world.stored().access_token, token.text);
        await world.main.clock(3545);
        succeeded(await session.token());
        assert.deepEqual(cloud.take(), WEB);
    });
});

describe('A token at its end', ALL, () => {
    for (const [lifetime, margin, end] of [[3600, 60, 3540], [100, 60, 75], [7200, 600, 6600],
        [3600, 0, 3600]]) {
        test(`of ${lifetime} s and a margin of ${margin} s ends after ${end} s`, async (t) => {
            const {world, token, cloud} = await own(t, {lifetime, settings: {margin}});
            cloud.script.token = reply(503);
            const at = async (seconds) => {
                rmSync(`${world.work}/gate`, {force: true});
                const service = world.service();
                await service.clock(seconds);
                return (await world.open({}, {service})).token();
            };
            assert.equal(succeeded(await at(end - 3)).text, token.text);
            failed(await at(end + 1), {code: 17, remedy: 'tryLater'});
        });
    }

    test('is refreshed, with the refresh token once', async (t) => {
        const {world, session, token, cloud} = await own(t);
        const before = world.stored();
        await world.main.clock(3541);
        const renewed = succeeded(await session.token());
        assert.notEqual(renewed.text, token.text);
        assert.deepEqual(cloud.take(), ['token']);
        assert.deepEqual(cloud.last('token').form, {grant_type: 'refresh_token',
            refresh_token: before.refresh_token, client_id: 'fleet-lens'});
        assert.notEqual(world.stored().refresh_token, before.refresh_token);
        assert.equal(renewed.text, world.stored().access_token);
    });

    test('fails only those callers that need a new one', async (t) => {
        const {world, session, cloud} = await own(t);
        cloud.script.token = hang;
        await world.main.clock(3541);
        const short = await world.open({timeout: 1500});
        failed(await short.token(), {remedy: 'tryLater'});
        delete cloud.script.token;
        await world.main.clock(3590);
        succeeded(await session.token());
    });

    for (const member of ['refresh_token', 'scope']) {
        test(`keeps its ${member} when there is no new one`, async (t) => {
            const {world, session, cloud} = await own(t);
            const before = world.stored()[member];
            for (const [n, value] of [undefined, null, '', 7, [], {}].entries()) {
                cloud.script.token = () => json(cloud.tokens({[member]: value}));
                await world.main.clock(3541 * (n + 1));
                succeeded(await session.token());
                assert.equal(world.stored()[member], before, JSON.stringify(value));
            }
            assert.equal(cloud.take().length, 6);
        });
    }

    test('whose refresh is refused is replaced by a sign-in', async (t) => {
        const {world, session, cloud} = await own(t);
        for (const [n, answer] of [refusal('invalid_grant'), refusal('invalid_scope'),
            reply(400, {body: 'no'}), refusal('invalid_token', 401), refusal('invalid_grant', 403),
        ].entries()) {
            cloud.script.token = ({form}) => (form.refresh_token ? answer : undefined);
            await world.main.clock(3541 * (n + 1));
            succeeded(await session.token());
            assert.deepEqual(cloud.take(), ['token', ...WEB], `${answer}`);
        }
    });

    test('whose refresh is refused for the client is not', async (t) => {
        const {world, session, cloud} = await own(t);
        const before = world.stored();
        cloud.script.token = refusal('invalid_client', 401);
        await world.main.clock(3541);
        failed(await session.token(),
            {code: 37, remedy: 'fixSettings', serverError: 'invalid_client'});
        assert.deepEqual(cloud.take(), ['token']);
        assert.deepEqual(world.stored(), before);
    });

    test('without refresh token is replaced by a sign-in', async (t) => {
        const world = await World.create(t);
        const {cloud} = world;
        cloud.script.token = () => json(cloud.tokens({refresh_token: undefined}));
        const session = await world.open();
        succeeded(await session.token());
        cloud.take();
        await world.main.clock(3300);
        succeeded(await session.token());
        assert.deepEqual(cloud.take(), []);
        await world.main.clock(3541);
        succeeded(await session.token());
        assert.deepEqual(cloud.take(), WEB);
    });

    test('whose rotation was lost by a cut reply is replaced by a sign-in', async (t) => {
        const {world, session, cloud} = await own(t);
        cloud.script.token = () => {
            cloud.revokeAll();
            return cut(json(cloud.tokens()), 150);
        };
        await world.main.clock(3541);
        failed(await session.token(), {code: 26, remedy: 'tryLater'});
        delete cloud.script.token;
        cloud.take();
        await world.main.clock(3590);
        succeeded(await session.token());
        assert.deepEqual(cloud.take(), ['token', ...WEB]);
    });
});

describe('A refresh that is refused after another has stored tokens', ALL, () => {
    async function meanwhile(t, changes) {
        const {world, session, cloud} = await own(t);
        const stored = world.stored();
        cloud.script.token = () => {
            delete cloud.script.token;
            world.store({...stored, ...changes(cloud)});
            return refusal('invalid_grant');
        };
        await world.main.clock(3541);
        return {world, stored, cloud, answer: succeeded(await session.token())};
    }

    test('gives their unexpired access token', async (t) => {
        const {answer, cloud} = await meanwhile(t, () => ({access_token: 'another',
            refresh_token: 'another', expires_at: Date.now() / 1000 + 3541 + 3000}));
        assert.equal(answer.text, 'another');
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('tries their refresh token, once', async (t) => {
        const {cloud, answer} = await meanwhile(t, (c) => ({...c.tokens(), expires_at: 1}));
        assert.deepEqual(cloud.take(), ['token', 'token']);
        assert.ok(answer.text);
        const again = await meanwhile(t, () => ({refresh_token: 'unknown', expires_at: 1}));
        assert.deepEqual(again.cloud.take(), ['token', 'token', ...WEB]);
    });
});

describe('The lifetime', ALL, () => {
    const TEN_YEARS = 315_360_000;
    const rows = [
        [60, 60], ['60', 60], ['3600', 3600], [90.5, 90.5], [TEN_YEARS * 2, TEN_YEARS],
        ['99999999999', TEN_YEARS], [1e30, TEN_YEARS], [undefined, undefined], [null, undefined],
        ['', undefined], ['1h', undefined], [true, undefined], [[], undefined], [{}, undefined],
        ['-', undefined], ['0x10', undefined],
    ];
    test('is read from numbers and texts', async (t) => {
        const world = await World.create(t);
        for (const [n, [value, seconds]] of rows.entries()) {
            world.cloud.lifetime = value;
            const session = await world.open({tokenFile: `${world.folder}/${n}.json`});
            const token = succeeded(await session.token());
            const wait = token.expires && token.expires - Date.now() / 1000;
            assert.ok(seconds === wait || Math.abs(wait - seconds) < Math.max(10, seconds / 300),
                `${JSON.stringify(value)}: ${wait}`);
        }
    });

    for (const value of [0, -5, '0', '-1']) {
        test(`${JSON.stringify(value)} gives the token once`, async (t) => {
            const {session, token, cloud} = await own(t, {lifetime: value});
            assert.notEqual(succeeded(await session.token()).text, token.text);
            assert.deepEqual(cloud.take(), ['token']);
        });
    }

    test('that is not named ends by renew() only', async (t) => {
        const {world, session, token, cloud} = await own(t, {lifetime: undefined});
        await world.main.clock(1e8);
        assert.equal(succeeded(await session.token()).text, token.text);
        assert.deepEqual(cloud.take(), []);
        assert.notEqual(succeeded(await session.renew(token.text)).text, token.text);
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('counts from sending', async (t) => {
        const world = await World.create(t);
        world.cloud.script.token = async () => (await sleep(1000), undefined);
        const session = await world.open();
        const before = Date.now() / 1000;
        const {expires, seconds} = succeeded(await session.token());
        assert.ok(expires - before < 3600 + seconds - 0.9, `${expires - before}`);
    });
});

describe('renew()', ALL, () => {
    test('replaces a token that was refused, once for all who ask', async (t) => {
        const {world, session, token, cloud} = await own(t);
        await world.main.clock(15);
        const {all} = await session.renew(token.text, {threads: 8});
        assert.equal(new Set(all.map((one) => succeeded(one).text)).size, 1);
        assert.notEqual(all[0].text, token.text);
        assert.equal(succeeded(await session.renew(token.text)).text, all[0].text);
        assert.deepEqual(cloud.take(), ['token']);
        assert.equal(succeeded(await session.token()).text, all[0].text);
    });

    test('gives what another process has stored', async (t) => {
        const {world, session, token, cloud} = await own(t);
        await world.main.clock(15);
        const service = world.service();
        await service.clock(15);
        const other = await world.open({}, {service});
        const renewed = succeeded(await other.renew(token.text));
        assert.equal(succeeded(await session.renew(token.text)).text, renewed.text);
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('leaves a token of less than 10 s alone, then of 20, 40, 80, 160 and 300', async (t) => {
        const {world, session, cloud} = await own(t);
        let {text} = world.token ?? (await session.token());
        let now = 0;
        for (const age of [10, 20, 40, 80, 160, 300, 300]) {
            await world.main.clock(now + age - 3);
            const refused = failed(await session.renew(text), {code: 40, remedy: 'tryLater'});
            assert.ok(refused.retryAfter >= 1 && refused.retryAfter <= 4, `${refused.retryAfter}`);
            assert.equal(succeeded(await session.token()).text, text);
            assert.deepEqual(cloud.take(), []);
            now += age + 2;
            await world.main.clock(now);
            ({text} = succeeded(await session.renew(text)));
            assert.deepEqual(cloud.take(), ['token']);
        }
        now += 605;
        await world.main.clock(now);
        ({text} = succeeded(await session.renew(text)));
        await world.main.clock(now + 17);
        failed(await session.renew(text), {code: 40});
        await world.main.clock(now + 22);
        succeeded(await session.renew(text));
    });

    test('counts the age for all processes', async (t) => {
        const {world, session, token, cloud} = await own(t);
        await world.main.clock(12);
        const {text} = succeeded(await session.renew(token.text));
        cloud.take();
        const service = world.service();
        await service.clock(12 + 15);
        const other = await world.open({}, {service});
        failed(await other.renew(text), {code: 40});
        await service.clock(12 + 22);
        succeeded(await other.renew(text));
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('comes before a closed gate', async (t) => {
        const {world, session, token, cloud} = await own(t);
        cloud.script.token = reply(503, {headers: ['Retry-After: 100']});
        await world.main.clock(15);
        failed(await session.renew(token.text), {code: 17, retryAfter: 100});
        delete cloud.script.token;
        await world.main.clock(16);
        failed(await session.renew(token.text), {code: 17});
        succeeded(await session.token());
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('counts from the first sight where no age is known', async (t) => {
        const {world, cloud} = await own(t);
        const stored = world.stored();
        delete stored.expires_in;
        delete stored.expires_at;
        world.store(stored);
        const session = await world.open();
        failed(await session.renew(stored.access_token), {code: 40});
        await world.main.clock(12);
        succeeded(await session.renew(stored.access_token));
        assert.deepEqual(cloud.take(), ['token']);
    });

    test('with a text that is no token at hand gives the token at hand', async (t) => {
        const {session, token, cloud} = await own(t);
        assert.equal(succeeded(await session.renew('an older one')).text, token.text);
        assert.deepEqual(cloud.take(), []);
    });
});

describe('A folder that is missing', () => {
    test('is a matter of the device, at the call', async (t) => {
        const world = await World.create(t);
        rmSync(world.folder, {recursive: true});
        const session = await world.open();
        failed(await session.token(), {code: 38, remedy: 'checkDevice', retryAfter: 0});
        assert.deepEqual(world.cloud.take(), []);
        mkdirSync(world.folder, {mode: 0o700});
        succeeded(await session.token());
        assert.equal(world.stored().scope, SCOPE);
    });
});
