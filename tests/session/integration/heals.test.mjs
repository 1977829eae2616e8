import assert from 'node:assert/strict';
import {readFileSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {describe, test} from 'node:test';

import {
    World, failed, filesWithSecrets, redirect, refusal, reply, secretsIn, signedIn, succeeded,
} from './session_lab.mjs';

const WEB = ['auth', 'login', 'resume', 'token'];
const ALL = {concurrency: 4};

describe('From a token file that', ALL, () => {
    const rows = [
        ['is empty', () => '', WEB],
        ['is cut', (text) => text.slice(0, -20), WEB],
        ['is cut to a byte', (text) => text.slice(0, 1), WEB],
        ['is not JSON', () => 'tokens\n', WEB],
        ['has text behind the object', (text) => `${text}x`, WEB],
        ['is an array', (text) => `[${text}]`, WEB],
        ['is null', () => 'null', WEB],
        ['is 1 MiB of blanks', () => ' '.repeat(1 << 20), WEB],
        ['is deep', () => '['.repeat(100_000), WEB],
        ['has NUL bytes', () => '\0'.repeat(4096), WEB],
        ['has an empty access token', change({access_token: ''}), ['token']],
        ['has no access token', change({access_token: undefined}), ['token']],
        ['has an access token with a blank', change({access_token: 'a b'}), ['token']],
        ['has an access token that is a number', change({access_token: 7}), ['token']],
        ['has no token type', change({token_type: undefined}), ['token']],
        ['has another token type', change({token_type: 'mac'}), ['token']],
        ['has no end beside a lifetime', change({expires_at: undefined}), ['token']],
        ['has an end without a lifetime', change({expires_in: undefined}), ['token']],
        ['has an end too far ahead', change({expires_at: 9e12}), ['token']],
        ['has an end in text', change({expires_at: 'tomorrow'}), ['token']],
        ['has an end in the past', change({expires_at: 5}), ['token']],
        ['has no refresh token', change({refresh_token: undefined, expires_at: 5}), WEB],
        ['has a refresh token of null', change({refresh_token: null, expires_at: 5}), WEB],
        ['has an unknown refresh token', change({refresh_token: 'x', expires_at: 5}),
            ['token', ...WEB]],
        ['has another digest', change({session: 'x'}), WEB],
        ['has a digest of null', change({session: null}), WEB],
    ];
    test('is damaged, the next call leads to good tokens', async (t) => {
        const world = await signedIn(t);
        for (const [what, damage, requests] of rows) {
            await t.test(what, async () => {
                const damaged = damage(JSON.stringify(world.stored()));
                world.store(typeof damaged === 'string' ? damaged : JSON.stringify(damaged));
                const session = await world.open();
                const {text} = succeeded(await session.token());
                assert.deepEqual(world.cloud.take(), requests);
                assert.equal(world.stored().access_token, text);
                succeeded(await session.token());
                assert.deepEqual(world.cloud.take(), []);
            });
        }
    });

    // The file with other members; undefined: without them.
    function change(members) {
        return (text) => ({...JSON.parse(text), ...members});
    }
});

describe('Tokens of another sign-in are never sent:', ALL, () => {
    for (const [what, change] of [
        ['another account', (world) => {
            world.cloud.account = 'account-2';
            world.link(world.cloud.profile());
        }],
        ['another client', () => ({clientId: 'fleet-lens-2'})],
        ['another scope', () => ({scope: 'openid'})],
        ['another redirect URI', () => ({redirectUri: 'https://fleet-lens.localhost/callback2'})],
        ['another token endpoint', ({cloud}) => ({tokenEndpoint: `${cloud.url}/token?x`})],
        ['another authorization endpoint',
            ({cloud}) => ({authorizationEndpoint: `${cloud.url}/auth?x`})],
    ]) {
        test(what, async (t) => {
            const world = await signedIn(t);
            const former = world.stored();
            const {cloud} = world;
            if (what === 'another redirect URI') {
                cloud.script.resume = () => {
                    const {state, code_challenge: challenge} = cloud.last('auth').query;
                    const query = new URLSearchParams({code: cloud.code({challenge}), state});
                    return redirect(`https://fleet-lens.localhost/callback2?${query}`);
                };
            }
            const settings = change(world) ?? {};
            const made = cloud.requests.length;
            const session = await world.open(settings);
            const token = succeeded(await session.token());
            assert.deepEqual(cloud.take(), WEB);
            const sent = JSON.stringify(cloud.requests.slice(made));
            const theirs = [former.access_token, former.refresh_token, former.id_token];
            assert.deepEqual(secretsIn(sent, theirs), []);
            assert.notEqual(token.text, former.access_token);
            assert.notEqual(world.stored().session, former.session);
            if (what === 'another account') {
                await world.main.clock(3541);
                succeeded(await world.session.token()); // which was opened before
                assert.deepEqual(cloud.take(), ['token']);
                const all = JSON.stringify(cloud.requests.slice(made));
                assert.deepEqual(secretsIn(all, theirs), []);
                console.log('relinked device: requests with the former account\'s tokens: 0');
            }
        });
    }

    test('an account that is unlinked gives 19, without a request', async (t) => {
        const world = await signedIn(t);
        const {account, ...unlinked} = world.cloud.profile();
        world.link(unlinked);
        await world.main.clock(3541);
        for (const session of [world.session, await world.open()]) {
            failed(await session.token(), {code: 19, remedy: 'linkAccount', retryAfter: 0});
        }
        assert.deepEqual(world.cloud.take(), []);
        world.link({...unlinked, account});
        succeeded(await world.session.token());
        assert.deepEqual(world.cloud.take(), ['token']);
    });
});

describe('A token file of the first library', ALL, () => {
    async function firstLibrarys(t, more = {}) {
        const world = await World.create(t);
        const tokens = world.cloud.tokens();
        world.store(`${JSON.stringify({...tokens, ...more}, null, 4)}\n`, 0o644);
        return {world, tokens};
    }

    test('is taken over: its refresh token is used, by two processes once', async (t) => {
        const {world, tokens} = await firstLibrarys(t);
        const sessions = await Promise.all([0, 1].map(async () =>
            world.open({}, {service: world.service()})));
        const answers = await Promise.all(sessions.map((session) => session.token()));
        assert.equal(succeeded(answers[0]).text, succeeded(answers[1]).text);
        assert.deepEqual(world.cloud.take(), ['token']);
        assert.equal(world.cloud.last('token').form.refresh_token, tokens.refresh_token);
        assert.ok(world.stored().session);
    });

    test('of another account leads to a sign-in when its refresh token is refused', async (t) => {
        const {world} = await firstLibrarys(t, {refresh_token: 'unknown'});
        succeeded(await (await world.open()).token());
        assert.deepEqual(world.cloud.take(), ['token', ...WEB]);
    });
});

describe('From a work folder with', ALL, () => {
    const text = (world) => readFileSync(world.tokenFile, 'utf8');
    const newer = (world) => JSON.stringify({...world.stored(), access_token: 'newer'});
    const rows = [
        ['a whole reserve', 'reserve', newer, 'newer'],
        ['a whole reserve with NUL bytes behind it', 'reserve',
            (world) => newer(world).padEnd(131_072, '\0'), 'newer'],
        ['a cut reserve', 'reserve', (world) => newer(world).slice(0, -5), 'old'],
        ['a cut reserve with NUL bytes behind it', 'reserve',
            (world) => newer(world).slice(0, -5).padEnd(131_072, '\0'), 'old'],
        ['a reserve of another sign-in', 'reserve',
            (world) => newer(world).replace(/"session":"./, '"session":"_'), 'old'],
        ['a reserve without digest', 'reserve',
            (world) => newer(world).replace('"session"', '"x"'), 'old'],
        ['an empty reserve', 'reserve', () => '', 'old'],
        ['a reserve of NUL bytes', 'reserve', () => '\0'.repeat(131_072), 'old'],
        ['a gate of garbage', 'gate', () => 'garbage', 'old'],
        ['an empty gate', 'gate', () => '', 'old'],
        ['a gate of JSON', 'gate', () => '{"deadline":1e300,"length":"x","count":-1}', 'old'],
        ['a gate of NUL bytes', 'gate', () => '\0'.repeat(4096), 'old'],
        ['another text in the lock', 'lock', () => 'x', 'old'],
    ];
    test('what a killed process left, the next call leads to good tokens', async (t) => {
        const world = await signedIn(t);
        for (const [n, [what, name, content, expected]] of rows.entries()) {
            await t.test(what, async () => {
                const before = text(world);
                const bytes = content(world);
                writeFileSync(join(world.work, name), bytes, {mode: 0o600});
                const session = await world.open();
                const token = succeeded(await session.token());
                assert.equal(token.text === 'newer' ? 'newer' : 'old', expected);
                if (expected === 'old') assert.equal(text(world), before);
                assert.deepEqual(filesWithSecrets(world.folder, [...world.cloud.secrets, 'newer'],
                    [world.tokenFile]), []);
                assert.deepEqual(world.cloud.take(), []);
                await world.main.clock(3541 * (n + 1));
                succeeded(await session.token());
                assert.deepEqual(world.cloud.take(), ['token']);
            });
        }
    });
});

describe('Grants that the server has forgotten', ALL, () => {
    test('are replaced by a sign-in in the same call', async (t) => {
        const world = await signedIn(t);
        world.cloud.revokeAll();
        await world.main.clock(3541);
        succeeded(await world.session.token());
        assert.deepEqual(world.cloud.take(), ['token', ...WEB]);
    });

    test('and a sign-in that fails, by the next call once the wait is over', async (t) => {
        const world = await signedIn(t);
        world.cloud.revokeAll();
        world.cloud.script.auth = reply(502);
        await world.main.clock(3541);
        const {retryAfter} = failed(await world.session.token(), {code: 15, remedy: 'tryLater'});
        assert.equal(world.stored().refresh_token, undefined);
        delete world.cloud.script.auth;
        await world.main.clock(3541 + retryAfter);
        succeeded(await world.session.token());
        assert.deepEqual(world.cloud.take(), ['token', 'auth', ...WEB]);
    });

    test('and a refused code, likewise', async (t) => {
        const world = await World.create(t);
        world.cloud.script.token = refusal('invalid_grant');
        const session = await world.open();
        const {retryAfter} = failed(await session.token(),
            {code: 37, remedy: 'tryLater', serverError: 'invalid_grant'});
        delete world.cloud.script.token;
        await world.main.clock(retryAfter);
        succeeded(await session.token());
        assert.deepEqual(world.cloud.take(), [...WEB, ...WEB]);
    });
});
