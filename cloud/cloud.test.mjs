// What the cloud answers, logs and takes as a command. Runs in scripts/sandbox. What a device meets in a
// login, tests/e2e/login.test.mjs shows with the library itself.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {createHash, randomBytes} from 'node:crypto';
import {once} from 'node:events';
import {existsSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync} from 'node:fs';
import {connect, createServer} from 'node:net';
import {join} from 'node:path';
import {createInterface} from 'node:readline';
import {text} from 'node:stream/consumers';
import {after, before, beforeEach, describe, test} from 'node:test';
import {fileURLToPath} from 'node:url';

import {DEFAULT_SETTINGS, startCloud} from './cloud-server.mjs';

const LOGIN = '/device/api/fleet_lens_login';
const GRANT = '/device/api/fleet_lens_grant';
const WEB = {clientId: 'fleet-lens', redirectUri: 'https://fleet-lens.localhost/callback'};
const NATIVE = {clientId: 'fleet-lens-native', redirectUri: 'app.fleetlens://callback/done'};

const folder = mkdtempSync('/tmp/cloud-test-');
after(() => rmSync(folder, {recursive: true}));

const param = (url, name) => new URL(url).searchParams.get(name);

// A device with its own cookies, doing what the library does.
class Device {
    #cookies = new Map();

    constructor(cloud, client = WEB) {
        Object.assign(this, {cloud, client, state: randomBytes(12).toString('base64url')});
        this.verifier = randomBytes(32).toString('base64url');
    }

    // One request; redirects are not followed.
    async send(url, {form, headers = {}} = {}) {
        const cookie = [...this.#cookies].map(([name, value]) => `${name}=${value}`).join('; ');
        const response = await fetch(url, {
            redirect: 'manual',
            headers: {cookie, connection: 'close', ...headers},
            ...(form && {method: 'POST', body: new URLSearchParams(form)}),
        });
        // Debian 12's Node.js has no getSetCookie().
        const setCookie = response.headers.get('set-cookie') ?? '';
        for (const [, name, value] of setCookie.matchAll(/(?:^|, )([^;,=\s]+)=([^;]*)/g)) {
            if (value) this.#cookies.set(name, value);
            else this.#cookies.delete(name);
        }
        const body = await response.text();
        const json = response.headers.get('content-type')?.includes('json') ? JSON.parse(body) : undefined;
        return {status: response.status, location: response.headers.get('location'), json};
    }

    authorize(changes = {}) {
        const query = new URLSearchParams({
            client_id: this.client.clientId, response_type: 'code', redirect_uri: this.client.redirectUri,
            scope: 'openid offline_access fleet.read', state: this.state,
            code_challenge: createHash('sha256').update(this.verifier).digest('base64url'),
            code_challenge_method: 'S256', ...changes,
        });
        return this.send(`${this.cloud.authorizationEndpoint}?${query}`);
    }

    account(path, form, headers) {
        return this.send(`https://${this.cloud.accountService}${path}`, {form, headers});
    }

    login(challenge) {
        const {id, authKey, serialNumber} = this.cloud.account;
        return this.account(LOGIN, {id, auth_key: authKey, serial_no: serialNumber, challenge});
    }

    // Signs in by the web; gives the challenge and the callback.
    async signIn() {
        const challenge = param((await this.authorize()).location, 'login_challenge');
        let url = (await this.login(challenge)).json.redirect_to;
        while (!url.startsWith(this.client.redirectUri)) url = (await this.send(url)).location;
        return {challenge, callback: url, code: param(url, 'code')};
    }

    grant(changes = {}, token = this.cloud.account.pkceAccessToken) {
        const {clientId, redirectUri} = this.client;
        return this.account(GRANT, {
            client_id: clientId, scope: 'openid fleet.read', redirect_uri: redirectUri, state: this.state,
            ...changes,
        }, {authorization: `Bearer ${token}`});
    }

    // A granted code is bound to no challenge, so its verifier is empty.
    exchange(code, changes = {}) {
        const {clientId, redirectUri} = this.client;
        return this.send(this.cloud.tokenEndpoint, {form: {
            grant_type: 'authorization_code', code, client_id: clientId, redirect_uri: redirectUri,
            code_verifier: '', ...changes,
        }});
    }

    async tokens() {
        return (await this.exchange((await this.grant()).json.grant)).json;
    }

    refresh(token) {
        return this.send(this.cloud.tokenEndpoint, {form: {
            grant_type: 'refresh_token', refresh_token: token, client_id: this.client.clientId}});
    }

    me(token) {
        return this.send(`${this.cloud.issuer}/me`, {headers: {authorization: `Bearer ${token}`}});
    }
}

describe('cloud', () => {
    const lines = [];
    let cloud;
    let device;

    before(async () => {
        cloud = await startCloud({print: (line) => lines.push(line)});
    });
    after(() => cloud.close());
    beforeEach(() => {
        Object.assign(cloud.settings, DEFAULT_SETTINGS);
        cloud.requests.length = 0;
        lines.length = 0;
        device = new Device(cloud);
    });

    test('serves both clients, with tokens for the account', async () => {
        for (const client of [WEB, NATIVE]) {
            device = new Device(cloud, client);
            const {code, callback} = await device.signIn();
            assert.equal(param(callback, 'state'), device.state);
            const {json} = await device.exchange(code, {code_verifier: device.verifier});
            assert.equal(json.expires_in, 3600);
            assert.ok(json.id_token && json.refresh_token);
            assert.equal((await device.me(json.access_token)).json.sub, cloud.account.id);
            assert.equal((await device.tokens()).scope, 'openid fleet.read');
        }
    });

    test('a missing field gets 400 and is named', async () => {
        for (const [path, names] of [
            [LOGIN, ['id', 'auth_key', 'serial_no', 'challenge']],
            [GRANT, ['client_id', 'scope', 'redirect_uri', 'state']],
        ]) {
            for (const missing of names) {
                const form = Object.fromEntries(names.map((name) => [name, 'x']));
                delete form[missing];
                const {status, json} = await device.account(path, form,
                    {authorization: `Bearer ${cloud.account.pkceAccessToken}`});
                assert.deepEqual([status, json.code, json.message],
                    [400, 'badrequest', `${missing} is missing`]);
            }
        }
    });

    test('a client, a redirect URI, a scope, a path and a name that it does not know are refused', async () => {
        for (const [code, changes] of [['badclient', {client_id: 'nobody'}],
            ['badredirect', {redirect_uri: NATIVE.redirectUri}], ['badscope', {scope: 'unheard.of'}]]) {
            const {status, json} = await device.grant(changes);
            assert.deepEqual([status, json.code, json.grant], [400, code, undefined]);
        }
        const {id, authKey, serialNumber} = cloud.account;
        for (const wrong of [{id: 'x'}, {auth_key: 'x'}, {serial_no: 'x'}]) {
            const {json} = await device.account(LOGIN,
                {id, auth_key: authKey, serial_no: serialNumber, challenge: 'x', ...wrong});
            assert.equal(json.code, 'badauth');
        }
        const {location} = await device.authorize({code_challenge_method: 'plain'});
        assert.ok(location.startsWith(`${WEB.redirectUri}?error=invalid_request`), location);
        assert.equal((await device.account('/token', {})).status, 404);
        assert.equal((await device.send(`https://localhost:${cloud.port}/auth`)).status, 421);
    });

    test('keeps more than a thousand entries, and tokens as long as it is set to', async () => {
        cloud.settings.accessTokenTtl = 7;
        const {refresh_token: token, expires_in: seconds} = await device.tokens();
        assert.equal(seconds, 7);
        for (let i = 0; i < 1100; i++) await cloud.grantCode({...WEB, scope: 'fleet.read'});
        assert.equal((await device.refresh(token)).status, 200);
    });

    test('logs a record and a line for every request, in order, with no secret whole', async () => {
        const {challenge, callback, code} = await device.signIn();
        const {json: tokens} = await device.exchange(code, {code_verifier: device.verifier});
        await device.exchange(code);
        await device.grant({}, 'wrong');
        await device.authorize({client_id: 'no\nbody', state: 's'});
        await device.authorize({response_type: 'token', state: 's'});

        const short = (word) => `${word.slice(0, 6)}...`;
        const names = [...new URLSearchParams(cloud.requests[0].url.split('?')[1]).keys()].join('&');
        assert.deepEqual(lines.slice(0, -1), [
            `GET auth.localhost/auth?${names} 302 fleet-lens -> /login?login_challenge=${short(challenge)}`,
            `POST account.localhost${LOGIN} 200 fleet-lens/fleet-owner success`,
            `GET auth.localhost/auth/${short(challenge)} 302 fleet-lens/fleet-owner -> ` +
                `${WEB.redirectUri}?code=${short(code)}&state=${short(device.state)}&iss=https%...`,
            'POST auth.localhost/token 200 fleet-lens/fleet-owner authorization_code',
            'POST auth.localhost/token 400 fleet-lens invalid_grant',
            `POST account.localhost${GRANT} 401 - badtoken`,
            `GET auth.localhost/auth?${names} 400 - invalid_client`,
        ]);
        assert.match(lines.at(-1), / fleet-lens -> \S+[?#]error=\w+&error_description=\S+&state=\.{3}&/);
        assert.deepEqual(cloud.requests.slice(0, 5).map(({status}) => status), [302, 200, 302, 200, 400]);
        assert.equal(cloud.requests[0].query.client_id, WEB.clientId);
        assert.equal(cloud.requests[1].form.challenge, challenge);
        assert.equal(cloud.requests[1].host, 'account.localhost');
        assert.equal(cloud.requests[2].location, callback);
        assert.equal(cloud.requests[3].form.code_verifier, device.verifier);

        Object.assign(cloud.settings, {consent: true, hops: 1});
        const {json: {grant}} = await device.grant();
        const {json: other} = await device.exchange(grant);
        const {json: renewed} = await device.refresh(other.refresh_token);
        await new Device(cloud).signIn();
        assert.match(lines.at(-3), /^GET auth\.localhost\/consent\?consent_challenge 302 fleet-lens\/fleet-owner -> /);
        const {authKey, pkceAccessToken} = cloud.account;
        for (const secret of [challenge, code, grant, device.state, device.verifier, authKey, pkceAccessToken,
            ...[tokens, other, renewed].flatMap((all) => [all.access_token, all.refresh_token, all.id_token])]) {
            assert.equal(typeof secret, 'string');
            assert.deepEqual(lines.filter((line) => line.includes(secret)), []);
        }
    });

    test('an unknown setting is an error', () => {
        assert.throws(() => Object.assign(cloud.settings, {hop: 1}), TypeError);
    });
});

test('close does not wait for connections, and frees the port', async () => {
    const cloud = await startCloud();
    const socket = connect(cloud.port, '127.0.0.1');
    await once(socket, 'connect');
    await Promise.all([cloud.close(), once(socket, 'close')]);
    await (await startCloud({port: cloud.port})).close();
});

describe('command', () => {
    const COMMAND = fileURLToPath(new URL('cloud.mjs', import.meta.url));
    const running = new Set();

    function run(args) {
        const child = spawn(process.execPath, [COMMAND, ...args]);
        running.add(child);
        const ended = Promise.all([once(child, 'close'), text(child.stderr)]).then(
            ([[status, signal], stderr]) => (running.delete(child), {status, signal, stderr}));
        return {child, ended, lines: createInterface(child.stdout)[Symbol.asyncIterator]()};
    }

    after(() => running.forEach((child) => child.kill('SIGKILL')));

    test('says when it is ready, writes its files, ends at once on a signal', async () => {
        const ready = join(folder, 'ready.json');
        const profile = join(folder, 'device.json');
        const {child, ended, lines} = run(['--ready-file', ready, '--host-profile', profile, '--no-pkce-token']);
        const [, port] = (await lines.next()).value.match(
            /^ready issuer=https:\/\/auth\.localhost:(\d+) account=account\.localhost:\1$/);
        assert.equal(statSync(profile).mode & 0o777, 0o600);
        const written = JSON.parse(readFileSync(profile, 'utf8'));
        assert.deepEqual(Object.keys(written), ['serial_number', 'user_agent', 'account', 'account_service']);
        assert.equal(written.account_service, `account.localhost:${port}`);
        assert.deepEqual(readdirSync(folder).sort(), ['device.json', 'ready.json']);

        const account = {id: written.account.id, authKey: written.account.auth_key,
            serialNumber: written.serial_number};
        await new Device({...JSON.parse(readFileSync(ready, 'utf8')), account}).signIn();
        assert.match((await lines.next()).value, /^GET auth\.localhost\/auth\?\S+ 302 fleet-lens -> /);

        const idle = connect(Number(port), '127.0.0.1');
        await once(idle, 'connect');
        child.kill('SIGINT');
        assert.deepEqual(await ended, {status: 0, signal: null, stderr: ''});
        assert.equal(existsSync(ready), false);
    });

    test('what it cannot start with ends it with one line', async () => {
        const busy = createServer().listen(0, '127.0.0.1');
        await once(busy, 'listening');
        const {port} = busy.address();
        await assert.rejects(startCloud({cert: join(folder, 'none')}), /cannot read the certificate/);
        for (const [status, args, reason] of [
            [1, ['--port', String(port)], `127.0.0.1 port ${port}: the port is already in use`],
            [2, ['--prot', '1'], '--prot'], [2, ['--port', '70000'], 'not "70000"'],
        ]) {
            const {ended, lines} = run(args);
            const {status: got, stderr} = await ended;
            assert.equal((await lines.next()).value, undefined);
            assert.match(stderr, /^cloud: [^\n]+\n$/);
            assert.ok(stderr.includes(reason), stderr);
            assert.equal(got, status);
        }
        busy.close();
    });

    test('its help is what the README shows', async () => {
        const readme = readFileSync(new URL('README.md', import.meta.url), 'utf8').split('\n');
        const {lines: help} = run(['--help']);
        const shown = [];
        for await (const line of help) shown.push(line);
        assert.ok(shown.length > 10);
        assert.deepEqual(shown.filter((line) => !readme.includes(line)), []);
        const {version} = JSON.parse(readFileSync(new URL('package.json', import.meta.url)));
        const {lines} = run(['--version']);
        assert.equal((await lines.next()).value, `cloud ${version}`);
    });
});
