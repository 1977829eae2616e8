// Each row of the table of codes and remedies, where it can be met from outside.
import assert from 'node:assert/strict';
import {writeFileSync} from 'node:fs';
import {createServer} from 'node:net';
import {describe, test} from 'node:test';

import {Certificates, GOOD, readPair} from '../../integration/certificates.mjs';
import {startServer} from '../../integration/lab.mjs';
import {
    REDIRECT_URI, World, cut, failed, filesBelow, filesWithSecrets, json, loggedIn, redirect, refusal, reply, signedIn,
    succeeded,
} from './session_lab.mjs';

const WEB = ['auth', 'login', 'resume', 'token'];
const ALL = {concurrency: 4};

// Fails as expected, then again without a request; with `works`, the call after the wait succeeds.
async function failsOnce(world, session, requests, expected, {since = 0, works = true} = {}) {
    await world.main.clock(since);
    const first = failed(await session.token(), expected);
    assert.deepEqual(world.cloud.take(), requests);
    const {code, remedy, what, serverError, retryAfter} = first;
    assert.ok(retryAfter >= 1 && retryAfter <= 2, `${retryAfter}`);
    const again = failed(await session.token(), {code, remedy, serverError});
    assert.equal(again.what, what);
    assert.ok(again.retryAfter <= retryAfter);
    assert.deepEqual(world.cloud.take(), []);
    const secrets = [...world.cloud.secrets];
    const files = filesBelow(world.folder).filter((path) => path.endsWith('.json'));
    assert.deepEqual(filesWithSecrets(world.folder, secrets, files), []);
    if (!works) return;
    world.cloud.script = {};
    await world.main.clock(since + retryAfter);
    succeeded(await session.token());
}

describe('A sign-in that fails:', ALL, () => {
    const callback = (query) => ({query: {state}}) =>
        redirect(`${REDIRECT_URI}?${query}&state=${state}`);
    const nowhere = `https://127.0.0.1:1/`;
    const rows = [
        // error in a callback
        ...['server_error', 'temporarily_unavailable', 'slow_down'].map((error) =>
            ['auth', callback(`error=${error}`), 37, 'tryLater', error]),
        ...['access_denied', 'login_required', 'consent_required', 'interaction_required',
            'account_selection_required'].map((error) =>
            ['auth', callback(`error=${error}`), 37, 'linkAccount', error]),
        ...['invalid_request', 'unauthorized_client', 'invalid_scope', 'invalid_grant', 'x'].map(
            (error) => ['auth', callback(`error=${error}`), 37, 'fixSettings', error]),
        ['auth', callback('error=a%22b'), 36, 'tryLater', ''],
        ['auth', callback(`error=${'x'.repeat(101)}`), 36, 'tryLater', ''],
        ['auth', callback(`error=${'x'.repeat(100)}`), 37, 'fixSettings', 'x'.repeat(100)],
        ['auth', ({query: {state}}) =>
            redirect(`${REDIRECT_URI}?error=${encodeURIComponent(state)}&state=${state}`), 36,
            'tryLater', ''],
        // error in a reply
        ['token', refusal('server_error'), 37, 'tryLater', 'server_error'],
        ['token', refusal('slow_down', 429), 37, 'tryLater', 'slow_down'],
        ['token', refusal('temporarily_unavailable', 503), 37, 'tryLater',
            'temporarily_unavailable'],
        ['token', refusal('access_denied', 403), 37, 'linkAccount', 'access_denied'],
        ['token', refusal('login_required', 500), 37, 'linkAccount', 'login_required'],
        ['token', refusal('invalid_grant'), 37, 'tryLater', 'invalid_grant'],
        ['token', refusal('invalid_client', 401), 37, 'fixSettings', 'invalid_client'],
        ['token', refusal('unauthorized_client'), 37, 'fixSettings', 'unauthorized_client'],
        ['token', refusal('unheard_of', 499), 37, 'fixSettings', 'unheard_of'],
        ['token', refusal('invalid_client', 500), 15, 'tryLater', ''],
        ['token', refusal('invalid_client', 503), 17, 'tryLater', ''],
        ['token', refusal('a\\b'), 14, 'fixSettings', ''],
        ['token', refusal(''), 14, 'fixSettings', ''],
        ['token', refusal(7), 14, 'fixSettings', ''],
        ['token', refusal('x'.repeat(101)), 14, 'fixSettings', ''],
        ['token', ({form}) => refusal(form.code), 14, 'fixSettings', ''],
        ['token', ({form}) => refusal(`no ${form.code_verifier}`), 14, 'fixSettings', ''],
        ['token', reply(400, {body: '{"error":"invalid_client"'}), 14, 'fixSettings', ''],
        // statuses
        ...['auth', 'resume', 'token'].flatMap((name) => [
            [name, reply(429), 14, 'tryLater'],
            [name, reply(502), 15, 'tryLater'],
            [name, reply(503), 17, 'tryLater'],
            [name, reply(404), 14, 'fixSettings'],
            [name, reply(600), 16, 'tryLater'],
            [name, cut(reply(200), 0), 26, 'tryLater'],
        ]),
        ['token', reply(204), 16, 'tryLater'],
        ['token', reply(201, {body: '{}'}), 16, 'tryLater'],
        ['token', reply(304), 16, 'tryLater'],
        ['token', redirect(`${REDIRECT_URI}?code=1`), 16, 'tryLater'],
        ['token', reply(200), 2, 'tryLater'],
        ['token', json([]), 2, 'tryLater'],
        ['token', json({}), 36, 'tryLater'],
        // no challenge, no callback
        ['auth', reply(200), 4, 'fixSettings'],
        ['auth', redirect(`${REDIRECT_URI.slice(0, -1)}?code=1`), 4, 'fixSettings'],
        ['auth', redirect('/login?challenge=x'), 4, 'fixSettings'],
        ['auth', reply(302), 4, 'fixSettings'],
        ['resume', reply(200), 5, 'fixSettings'],
        ['resume', reply(302), 5, 'fixSettings'],
        ['resume', redirect('http://127.0.0.1/'), 5, 'fixSettings'],
        ['resume', redirect('ftp://127.0.0.1/'), 5, 'fixSettings'],
        ['resume', redirect(nowhere), 26, 'tryLater'],
        ['resume', redirect('https://unknown.invalid/'), 31, 'tryLater'],
        ['resume', redirect('https://fleet-lens.localhost.invalid/callback?code=1'), 31, 'tryLater'],
        // the account service
        ['login', reply(500), 21, 'tryLater'],
        ['login', reply(200, {body: '{'}), 2, 'tryLater'],
        ['login', json({code: {}}), 36, 'tryLater'],
        ['login', json([]), 36, 'tryLater'],
        ['login', reply(200), 36, 'tryLater'],
        ['login', json({code: 'success'}), 36, 'tryLater'],
        ['login', json({code: 'success', redirect_to: ''}), 36, 'tryLater'],
        ['login', json({code: 'success', redirect_to: null}), 36, 'tryLater'],
        ['login', json({code: 'success', redirect_to: 7}), 36, 'tryLater'],
    ];
    // One world for all rows of an endpoint, a token file for each.
    for (const name of WEB) {
        test(name, async (t) => {
            const world = await World.create(t);
            for (const [n, [, answer, code, remedy, serverError = '']] of
                rows.filter(([first]) => first === name).entries()) {
                const status = Buffer.isBuffer(answer) ? answer.toString('latin1').split('\r\n')[0] : '';
                await t.test(`${status} ${serverError} gives ${code}, ${remedy} (row ${n})`, async () => {
                    world.cloud.script = {[name]: answer};
                    if (name === 'token') world.cloud.script.auth = loggedIn(world.cloud);
                    world.cloud.take();
                    const session = await world.open({tokenFile: `${world.folder}/${n}.json`});
                    const requests = name === 'token' ? ['auth', name] : WEB.slice(0, WEB.indexOf(name) + 1);
                    await failsOnce(world, session, requests, {code, remedy, serverError}, {works: n % 8 === 0});
                });
            }
        });
    }
    test('all rows', () => console.log(`failures of sign-ins: ${rows.length} rows tried`));

    test('badauth unlinks the device, 22', async (t) => {
        const world = await World.create(t);
        world.cloud.script.login = json({code: 'badauth'});
        const session = await world.open();
        failed(await session.token(), {code: 22, remedy: 'linkAccount'});
        assert.deepEqual(world.cloud.take(), ['auth', 'login']);
        failed(await session.token(), {remedy: 'linkAccount'});
        assert.deepEqual(world.cloud.take(), []);
        world.link(world.cloud.profile());
        delete world.cloud.script.login;
        await world.main.clock(70);
        succeeded(await session.token());
    });
});

describe('A refresh that fails:', ALL, () => {
    const rows = [
        [refusal('invalid_client', 401), 37, 'fixSettings', 'invalid_client'],
        [refusal('invalid_client', 400), 37, 'fixSettings', 'invalid_client'],
        [refusal('slow_down', 429), 37, 'tryLater', 'slow_down'],
        [refusal('access_denied', 403), 37, 'linkAccount', 'access_denied'],
        [refusal('server_error', 500), 37, 'tryLater', 'server_error'],
        [reply(403), 14, 'fixSettings'], [reply(404), 14, 'fixSettings'],
        [reply(429), 14, 'tryLater'], [reply(500), 15, 'tryLater'], [reply(503), 17, 'tryLater'],
        [reply(204), 16, 'tryLater'], [redirect('/token'), 16, 'tryLater'],
        [reply(200, {body: 'ok'}), 2, 'tryLater'], [json({}), 36, 'tryLater'], [cut(reply(200), 0), 26, 'tryLater'],
        [({form}) => refusal(form.refresh_token, 403), 14, 'fixSettings'],
    ];
    test('the tokens stay', async (t) => {
        const world = await signedIn(t);
        for (const [n, [answer, code, remedy, serverError = '']] of rows.entries()) {
            await t.test(`row ${n} gives ${code}, ${remedy}`, async () => {
                const before = world.stored();
                world.cloud.script.token = answer;
                world.cloud.take();
                const expected = {code, remedy, serverError};
                await failsOnce(world, world.session, ['token'], expected, {since: 3600 * (n + 1)});
                assert.equal(world.cloud.requests.filter(({form}) =>
                    form.refresh_token === before.refresh_token).length, 2);
            });
        }
    });
});

describe('The way to the servers:', ALL, () => {
    async function outcome(t, {settings = {}, env, profile, prepare = () => {}} = {}) {
        const world = await World.create(t);
        await prepare(world);
        if (profile) world.link(profile(world.cloud.profile()));
        const session = await world.open({...settings}, {service: world.service(env)});
        return {world, answer: await session.token(), session};
    }

    const certificate = (make, name = '127.0.0.1') => async (t) => {
        const server = await startServer(t, reply(503), {tls: make(new Certificates(t)), name});
        return {settings: {authorizationEndpoint: server.url}};
    };
    for (const [what, prepare, code, remedy] of [
        ['a certificate of an unknown CA', certificate((c) => {
            const {cert, key} = c.selfSigned({extensions: ['subjectAltName=IP:127.0.0.1']});
            return readPair({cert, key});
        }), 33, 'checkDevice'],
        ['a certificate that has expired', certificate((c) => c.expired()), 33, 'checkDevice'],
        ['a certificate for another name', certificate((c) => c.make({names: 'DNS:other.localhost'})),
            33, 'checkDevice'],
        ['a server that speaks TLS 1.1 only', async (t) => {
            const system = `${new Certificates(t).folder}/system.cnf`;
            writeFileSync(system, ['openssl_conf=init', '[init]', 'ssl_conf=ssl', '[ssl]',
                'system_default=system', '[system]', 'CipherString=DEFAULT:@SECLEVEL=0',
                'MinProtocol=TLSv1', ''].join('\n'));
            const tls = {...GOOD, minVersion: 'TLSv1', maxVersion: 'TLSv1.1',
                ciphers: 'DEFAULT:@SECLEVEL=0'};
            const server = await startServer(t, reply(503), {tls});
            return {env: {OPENSSL_CONF: system}, settings: {authorizationEndpoint: server.url}};
        }, 26, 'tryLater'],
        ['no server', () => ({settings: {authorizationEndpoint: 'https://127.0.0.1:1/auth'}}), 26,
            'tryLater'],
        ['an unknown name', () => ({settings: {authorizationEndpoint: 'https://unknown.invalid/'}}),
            31, 'tryLater'],
        ['a proxy that is away', () => ({env: {https_proxy: 'http://127.0.0.1:1'}}), 26, 'tryLater'],
        ['a proxy with an unknown name', () => ({env: {https_proxy: 'http://unknown.invalid:1'}}),
            31, 'tryLater'],
        ['no user agent', () => ({profile: (p) => ({...p, user_agent: null})}), 18, 'checkDevice'],
        ['no serial number', () => ({profile: (p) => ({...p, serial_number: null})}), 10,
            'checkDevice'],
        ['no account service', () => ({profile: (p) => ({...p, account_service: null})}), 20,
            'checkDevice'],
        ['no account', () => ({profile: ({account, ...p}) => (account, p)}), 19, 'linkAccount'],
        ['an account service that is away',
            () => ({profile: (p) => ({...p, account_service: '127.0.0.1:1'})}), 21, 'tryLater'],
    ]) {
        test(`${what} gives ${code}, ${remedy}`, async (t) => {
            const {answer} = await outcome(t, await prepare(t));
            failed(answer, {code, remedy});
        });
    }

    test('a proxy of the environment is used', async (t) => {
        const connects = [];
        const proxy = createServer((socket) => {
            socket.on('error', () => {});
            socket.once('data', (bytes) => {
                connects.push(bytes.toString('latin1').split('\r\n')[0]);
                socket.end('HTTP/1.1 502 no\r\n\r\n');
            });
        });
        await new Promise((resolve) => proxy.listen(0, '127.0.0.1', resolve));
        t.after(() => proxy.close());
        const {world, answer} = await outcome(t,
            {env: {https_proxy: `http://127.0.0.1:${proxy.address().port}`}});
        failed(answer, {remedy: 'tryLater'});
        assert.match(connects[0], /^CONNECT 127\.0\.0\.1:\d+ /);
        assert.deepEqual(world.cloud.take(), []);
    });

    test('a trace file or .netrc of the user changes nothing', async (t) => {
        const {world, answer} = await outcome(t, {env: {SSL_CERT_FILE: '/nonexistent',
            CURL_CA_BUNDLE: '/nonexistent', HOME: '/tmp'}, prepare: ({root}) =>
            writeFileSync(`${root}/.netrc`, 'machine 127.0.0.1 login a password b\n')});
        succeeded(answer);
        assert.ok(world.cloud.requests.every(({headers}) => !headers.authorization));
    });
});
