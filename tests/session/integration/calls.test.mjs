// The other calls: construction, signOut(), cancel(), fork().
import assert from 'node:assert/strict';
import {existsSync, rmSync} from 'node:fs';
import {describe, test} from 'node:test';

import {
    World, failed, filesWithSecrets, hang, reply, signedIn, sleep, succeeded,
} from './session_lab.mjs';

const WEB = ['auth', 'login', 'resume', 'token'];
const ALL = {concurrency: 4};

describe('Settings that cannot be used are refused at construction:', () => {
    const URL_ERRORS = ['', 'http://127.0.0.1/', '127.0.0.1', 'https://127.0.0.1/#f', 'https://',
        'https://127.0.0.1/a b', 'https://127.0.0.1/\n', 'https://[::1/', 'https://127.0.0.1:99999/'];
    const rows = {
        authorizationEndpoint: URL_ERRORS,
        tokenEndpoint: URL_ERRORS,
        revocationEndpoint: URL_ERRORS.slice(1),
        clientId: ['', 'a\nb', 'a\u0000b'],
        redirectUri: ['', 'app://cb', 'https://x', 'HTTPS://x/', 'https://x/a/../b', 'https://x/a\tb',
            'x', 'https://127.1/'],
        scope: ['', 'a\nb', 'a\u0001'],
        tokenFile: ['', 'tokens.json', './tokens.json', '/tmp/a\nb'],
        margin: [-1],
        timeout: [999, 0, -1],
    };
    for (const [member, values] of Object.entries(rows)) {
        test(member, async (t) => {
            const world = await World.create(t);
            for (const value of values) {
                const {opened} = await world.open({[member]: value});
                failed(opened, {code: 34, remedy: 'fixSettings', retryAfter: 0});
                assert.ok(opened.what.includes(member), opened.what);
            }
            assert.deepEqual(world.cloud.take(), []);
        });
    }

    test('and these are not', async (t) => {
        const world = await World.create(t);
        for (const changes of [{redirectUri: 'https://x/'}, {redirectUri: 'https://x:443/a?b=c'},
            {redirectUri: 'app.x://callback/done'}, {margin: 0}, {timeout: 1000}, {clientId: 'a b&=ä'},
            {authorizationEndpoint: 'https://127.0.0.1/?a=b'}, {revocationEndpoint: ''}]) {
            succeeded((await world.open(changes)).opened);
        }
    });
});

describe('signOut()', ALL, () => {
    const settings = ({cloud}) => ({revocationEndpoint: `${cloud.url}/revoke`});

    test('removes the tokens, and the next call signs in', async (t) => {
        const world = await signedIn(t);
        assert.equal(succeeded(await world.session.signOut()).told, true);
        assert.ok(!existsSync(world.tokenFile));
        assert.deepEqual(filesWithSecrets(world.root, world.cloud.secrets, [world.profileFile]), []);
        assert.deepEqual(world.cloud.take(), []);
        succeeded(await world.session.token());
        assert.deepEqual(world.cloud.take(), WEB);
    });

    test('revokes the refresh token, once', async (t) => {
        const world = await signedIn(t);
        const stored = world.stored();
        const session = await world.open(settings(world));
        assert.equal(succeeded(await session.signOut()).told, true);
        assert.deepEqual(world.cloud.take(), ['revoke']);
        const {form, headers} = world.cloud.last('revoke');
        assert.deepEqual(form, {token: stored.refresh_token, token_type_hint: 'refresh_token',
            client_id: 'fleet-lens'});
        assert.equal(headers['content-type'], 'application/x-www-form-urlencoded');
        assert.ok(!existsSync(world.tokenFile));
        assert.equal(succeeded(await session.signOut()).told, true);
        assert.deepEqual(world.cloud.take(), []);
    });

    for (const [what, answer] of [['refuses', reply(400)], ['fails', reply(503)],
        ['does not answer', reply(200).subarray(0, 0)]]) {
        test(`is false when the server ${what}, and the tokens are gone all the same`, async (t) => {
            const world = await signedIn(t);
            world.cloud.script.revoke = answer;
            const session = await world.open(settings(world));
            assert.equal(succeeded(await session.signOut()).told, false);
            assert.deepEqual(world.cloud.take(), ['revoke']);
            assert.ok(!existsSync(world.tokenFile));
        });
    }

    test('asks nothing while the gate is closed, and opens it', async (t) => {
        const world = await signedIn(t);
        const session = await world.open(settings(world));
        world.cloud.script.token = reply(503, {headers: ['Retry-After: 100']});
        await world.main.clock(3541);
        failed(await session.token(), {code: 17});
        world.cloud.take();
        assert.equal(succeeded(await session.signOut()).told, false);
        assert.deepEqual(world.cloud.take(), []);
        world.cloud.script = {};
        succeeded(await session.token());
        assert.deepEqual(world.cloud.take(), WEB);
    });

    test('is false without a linked account, and asks nothing', async (t) => {
        const world = await signedIn(t);
        const session = await world.open(settings(world));
        const {account, ...unlinked} = world.cloud.profile();
        assert.ok(account);
        world.link(unlinked);
        assert.equal(succeeded(await session.signOut()).told, false);
        assert.deepEqual(world.cloud.take(), []);
        assert.ok(!existsSync(world.tokenFile));
    });

    test('reaches the sessions of other processes', async (t) => {
        const world = await signedIn(t);
        const other = await world.open({}, {service: world.service()});
        succeeded(await other.token());
        succeeded(await world.session.signOut());
        await other.service.clock(3541);
        succeeded(await other.token());
        assert.deepEqual(world.cloud.take(), WEB);
    });

    test('is false when cancelled while it asks', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.revoke = hang;
        const session = await world.open(settings(world));
        const signingOut = session.signOut();
        while (!world.cloud.count('revoke')) await sleep(5);
        await session.cancel();
        const {told, seconds} = succeeded(await signingOut);
        assert.equal(told, false);
        assert.ok(seconds < 2);
        assert.ok(!existsSync(world.tokenFile));
    });
});

describe('cancel()', ALL, () => {
    const CANCELLED = {code: 35, remedy: 'cancelled', retryAfter: 0};
    for (const bySignal of [false, true]) {
        for (const name of ['auth', 'resume', 'token']) {
            test(`${bySignal ? 'in a signal handler ' : ''}ends ${name} within a second`, async (t) => {
                const world = await World.create(t);
                world.cloud.script[name] = hang;
                const session = await world.open();
                const waiting = session.token({threads: 4});
                while (!world.cloud.count(name)) await sleep(5);
                const begin = performance.now();
                await session.cancel({bySignal});
                (await waiting).all.forEach((answer) => failed(answer, CANCELLED));
                const milliseconds = performance.now() - begin;
                assert.ok(milliseconds < 1000, `${milliseconds}`);
                failed(await session.token(), CANCELLED);
                // It closed no gate.
                world.cloud.script = {};
                succeeded(await (await world.open()).token());
            });
        }
    }

    test('ends who waits for the lock, and not the other sessions', async (t) => {
        const world = await World.create(t);
        let release;
        const held = new Promise((resolve) => (release = resolve));
        world.cloud.script.token = async () => (await held, undefined);
        const first = (await world.open()).token();
        while (!world.cloud.count('token')) await sleep(5);
        const other = await world.open({}, {service: world.service()});
        const waiting = other.token();
        await sleep(200);
        await other.cancel();
        const {seconds} = failed(await waiting, CANCELLED);
        assert.ok(seconds < 1.3, `${seconds}`);
        release();
        succeeded(await first);
    });

    test('is final, also with a good token at hand', async (t) => {
        const {session, cloud} = await signedIn(t);
        await session.cancel();
        failed(await session.token(), CANCELLED);
        failed(await session.renew('x'), CANCELLED);
        failed(await session.signOut(), CANCELLED);
        assert.deepEqual(cloud.take(), []);
    });

    test('keeps tokens that arrive', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = hang;
        await world.main.clock(3541);
        const waiting = world.session.token();
        while (world.cloud.count('token') < 2) await sleep(5);
        await world.session.cancel();
        failed(await waiting, CANCELLED);
        world.cloud.script = {};
        succeeded(await (await world.open()).token());
    });
});

describe('fork()', ALL, () => {
    test('leaves an inherited session unusable, and a child makes its own', async (t) => {
        const world = await signedIn(t);
        const {inherited, own, status} = await world.session.fork({settings: world.settings});
        failed(inherited, {code: 34, remedy: 'fixSettings', retryAfter: 0});
        assert.ok(inherited.seconds < 0.5);
        assert.equal(succeeded(own).text, world.token.text);
        assert.equal(status, 0);
        assert.equal(succeeded(await world.session.token()).text, world.token.text);
    });

    test('during a renewal does not keep the lock beyond the parent', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = hang;
        await world.main.clock(3541);
        const renewing = world.session.token().catch(() => 'killed');
        while (world.cloud.count('token') < 2) await sleep(5);
        const {pid} = await world.session.fork({hold: true});
        t.after(() => process.kill(pid, 'SIGKILL'));
        world.cloud.script = {};
        await world.main.kill();
        assert.equal(await renewing, 'killed');
        const service = world.service();
        await service.clock(3541);
        const {seconds} = succeeded(await (await world.open({timeout: 5000}, {service})).token());
        assert.ok(seconds < 2, `${seconds}`);
    });

    test('during a renewal does not keep the lock when the parent is done', async (t) => {
        const world = await signedIn(t);
        let release;
        const held = new Promise((resolve) => (release = resolve));
        world.cloud.script.token = async () => (await held, undefined);
        await world.main.clock(3541);
        const renewing = world.session.token();
        while (world.cloud.count('token') < 2) await sleep(5);
        const {pid} = await world.session.fork({hold: true});
        t.after(() => process.kill(pid, 'SIGKILL'));
        release();
        succeeded(await renewing);
        const service = world.service();
        await service.clock(2 * 3541);
        succeeded(await (await world.open({timeout: 3000}, {service})).token());
    });
});

describe('The work folder', ALL, () => {
    test('may be removed at any time', async (t) => {
        const world = await signedIn(t);
        for (let n = 1; n < 4; n += 1) {
            rmSync(world.work, {recursive: true});
            await world.main.clock(n * 3541);
            succeeded(await world.session.token());
            assert.deepEqual(world.cloud.take(), ['token']);
        }
    });
});
