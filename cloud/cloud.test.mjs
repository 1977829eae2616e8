import assert from 'node:assert/strict';
import {execFileSync, spawn} from 'node:child_process';
import {createHash, randomBytes} from 'node:crypto';
import {once} from 'node:events';
import {mkdtempSync, readFileSync, rmSync, existsSync, statSync, writeFileSync} from 'node:fs';
import {request as httpsRequest} from 'node:https';
import {connect, createServer} from 'node:net';
import {tmpdir} from 'node:os';
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

const folder = mkdtempSync(join(tmpdir(), 'loopback-cloud-'));
const files = Object.fromEntries(['caKey', 'ca', 'key', 'cert'].map((n) => [n, join(folder, n)]));

function makeCertificates() {
    const newKey = ['-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes', '-days', '1'];
    const openssl = (...args) => execFileSync('openssl', args, {stdio: 'pipe'});
    openssl('req', '-x509', ...newKey, '-subj', '/CN=test CA', '-keyout', files.caKey,
        '-out', files.ca);
    openssl('req', '-x509', '-CA', files.ca, '-CAkey', files.caKey, ...newKey,
        '-subj', '/CN=auth.localhost', '-keyout', files.key, '-out', files.cert,
        '-addext', 'subjectAltName=DNS:auth.localhost,DNS:account.localhost,DNS:localhost');
}

makeCertificates();
const ca = readFileSync(files.ca);
after(() => rmSync(folder, {recursive: true}));

// A browser's cookies, which name and path identify.
class Jar {
    #cookies = new Map();

    store(lines = []) {
        for (const line of lines) {
            const [, name, value] = line.match(/^([^=]+)=([^;]*)/);
            const path = line.match(/path=([^;]*)/i)?.[1] ?? '/';
            const gone = new Date(line.match(/expires=([^;]*)/i)?.[1] ?? Infinity) < Date.now();
            if (gone) this.#cookies.delete(name + path);
            else this.#cookies.set(name + path, {name, value, path});
        }
    }

    header(pathname) {
        const mine = [...this.#cookies.values()].filter(({path}) =>
            path === '/' || pathname === path || pathname.startsWith(`${path}/`));
        return mine.map(({name, value}) => `${name}=${value}`).join('; ');
    }
}

const lookup = (host, {all}, done) => (all ? done(null, [{address: '127.0.0.1', family: 4}])
                                           : done(null, '127.0.0.1', 4));

// One request; redirects are not followed.
async function send(url, {form, headers = {}, jar} = {}) {
    const cookie = jar?.header(new URL(url).pathname);
    const request = httpsRequest(url, {
        ca,
        lookup,
        agent: false,
        method: form ? 'POST' : 'GET',
        headers: {
            ...(cookie && {cookie}),
            ...(form && {'content-type': 'application/x-www-form-urlencoded'}),
            ...headers,
        },
    });
    request.end(form && new URLSearchParams(form).toString());
    const [response] = await once(request, 'response');
    const body = await text(response);
    jar?.store(response.headers['set-cookie']);
    const json = response.headers['content-type']?.includes('json') ? JSON.parse(body) : undefined;
    return {status: response.statusCode, location: response.headers.location, body, json};
}

function param(url, name) {
    return new URL(url).searchParams.get(name);
}

function pkcePair() {
    const verifier = randomBytes(32).toString('base64url');
    return {verifier, challenge: createHash('sha256').update(verifier).digest('base64url')};
}

// A device with its own cookies, doing what the library does.
class Device {
    constructor(cloud, client = WEB) {
        Object.assign(this, {cloud, client, jar: new Jar(), pkce: pkcePair()});
        this.state = randomBytes(12).toString('base64url');
    }

    authorize(changes = {}) {
        const query = new URLSearchParams({
            client_id: this.client.clientId,
            response_type: 'code',
            redirect_uri: this.client.redirectUri,
            scope: 'openid offline_access fleet.read',
            state: this.state,
            code_challenge: this.pkce.challenge,
            code_challenge_method: 'S256',
            ...changes,
        });
        return send(`${this.cloud.authorizationEndpoint}?${query}`, {jar: this.jar});
    }

    async challenge() {
        return param((await this.authorize()).location, 'login_challenge');
    }

    account(path, form, headers) {
        return send(`https://${this.cloud.accountService}${path}`, {form, headers});
    }

    login(challenge, changes = {}) {
        const {account} = this.cloud;
        return this.account(LOGIN, {
            id: account.id,
            auth_key: account.authKey,
            serial_no: account.serialNumber,
            challenge,
            ...changes,
        });
    }

    // GETs until a redirect names the callback; at most `limit` of them.
    async follow(url, limit = 5) {
        for (let count = 1; count <= limit; count++) {
            const {status, location} = await send(url, {jar: this.jar});
            assert.equal(status, 302);
            if (location.includes(this.client.redirectUri)) return {callback: location, count};
            url = location;
        }
        return {callback: undefined, count: limit};
    }

    async signIn() {
        const {json} = await this.login(await this.challenge());
        const {callback} = await this.follow(json.redirect_to);
        return param(callback, 'code');
    }

    grant(changes = {}, token = this.cloud.account.pkceAccessToken) {
        const form = {
            client_id: this.client.clientId,
            scope: 'openid fleet.read',
            redirect_uri: this.client.redirectUri,
            state: this.state,
            ...changes,
        };
        return this.account(GRANT, form, {authorization: `Bearer ${token}`});
    }

    exchange(code, changes = {}) {
        return send(this.cloud.tokenEndpoint, {
            form: {
                grant_type: 'authorization_code',
                code,
                client_id: this.client.clientId,
                redirect_uri: this.client.redirectUri,
                code_verifier: this.pkce.verifier,
                ...changes,
            },
        });
    }

    refresh(token) {
        const form = {
            grant_type: 'refresh_token',
            refresh_token: token,
            client_id: this.client.clientId,
        };
        return send(this.cloud.tokenEndpoint, {form});
    }
}

function assertRefused({status, json}, expected = [400, 'invalid_grant']) {
    assert.deepEqual([status, json.error], expected);
}

describe('cloud', () => {
    const lines = [];
    let cloud;
    let device;

    before(async () => {
        const {cert, key} = files;
        cloud = await startCloud({cert, key, print: (line) => lines.push(line)});
    });
    after(() => cloud.close());
    beforeEach(() => {
        Object.assign(cloud.settings, DEFAULT_SETTINGS);
        cloud.requests.length = 0;
        lines.length = 0;
        device = new Device(cloud);
    });

    describe('web login', () => {
        for (const client of [WEB, NATIVE]) {
            test(`${client.clientId} signs in, exchanges the code and refreshes`, async () => {
                device = new Device(cloud, client);
                const start = await device.authorize();
                assert.equal(start.status, 302);
                assert.ok(start.location.startsWith(`${cloud.issuer}/login?login_challenge=`));

                const {json} = await device.login(param(start.location, 'login_challenge'));
                assert.equal(json.code, 'success');
                const {callback, count} = await device.follow(json.redirect_to);
                assert.equal(count, 1);
                assert.equal(param(callback, 'state'), device.state);

                const tokens = await device.exchange(param(callback, 'code'));
                assert.equal(tokens.status, 200);
                assert.equal(tokens.json.expires_in, 3600);
                assert.ok(tokens.json.access_token);
                assert.ok(tokens.json.id_token);
                const renewed = await device.refresh(tokens.json.refresh_token);
                assert.equal(renewed.status, 200);
                assert.notEqual(renewed.json.refresh_token, tokens.json.refresh_token);
            });
        }

        test('the access token is good for the account it was issued for', async () => {
            const tokens = await device.exchange(await device.signIn());
            const headers = {authorization: `Bearer ${tokens.json.access_token}`};
            const {json} = await send(`${cloud.issuer}/me`, {headers});
            assert.equal(json.sub, cloud.account.id);
        });

        test('the same cookies get a new challenge after a finished login', async () => {
            await device.signIn();
            assert.ok(await device.challenge());
            assert.ok(await device.signIn());
        });

        test('resume is refused without cookies, with another device\'s, and twice', async () => {
            const {json: {redirect_to: resume}} = await device.login(await device.challenge());
            const stranger = new Device(cloud);
            await stranger.challenge();
            assert.equal((await send(resume)).status, 400);
            assert.equal((await send(resume, {jar: stranger.jar})).status, 400);
            assert.equal((await send(resume, {jar: device.jar})).status, 302);
            assert.equal((await send(resume, {jar: device.jar})).status, 400);
        });

        test('resume before the login leads to a new challenge', async () => {
            const challenge = await device.challenge();
            const {location} = await send(`${cloud.issuer}/auth/${challenge}`, {jar: device.jar});
            assert.ok(param(location, 'login_challenge'));
            assert.notEqual(param(location, 'login_challenge'), challenge);
        });

        test('without an S256 challenge the callback gets an error', async () => {
            for (const changes of [{code_challenge: '', code_challenge_method: ''},
                                   {code_challenge_method: 'plain'}]) {
                const {status, location} = await device.authorize(changes);
                assert.equal(status, 302);
                assert.ok(location.startsWith(`${WEB.redirectUri}?error=invalid_request`));
            }
        });

        test('an unknown client or redirect URI gets 400 and no redirect', async () => {
            assert.equal((await device.authorize({client_id: 'nobody'})).status, 400);
            assert.equal((await device.authorize({redirect_uri: 'https://a.localhost/'})).status,
                400);
        });

        for (const [consent, hops, redirects] of [[false, 4, 5], [false, 5, 6], [true, 0, 3],
                                                  [true, 2, 5], [true, 3, 6]]) {
            const step = consent ? 'a consent step and ' : '';
            test(`${step}${hops} hops make ${redirects} redirects`, async () => {
                Object.assign(cloud.settings, {consent, hops});
                const {json} = await device.login(await device.challenge());
                const {callback, count} = await device.follow(json.redirect_to, 10);
                assert.equal(count, redirects);
                assert.equal((await device.exchange(param(callback, 'code'))).status, 200);
            });
        }

        test('consent is refused without the cookies, and to the account service', async () => {
            cloud.settings.consent = true;
            const {json} = await device.login(await device.challenge());
            const {location} = await send(json.redirect_to, {jar: device.jar});
            assert.ok(location.startsWith(`${cloud.issuer}/consent?consent_challenge=`));
            assert.equal((await send(location)).status, 400);
            const attempt = await device.login(param(location, 'consent_challenge'));
            assert.equal(attempt.json.code, 'badchallenge');
        });
    });

    describe('account service', () => {
        test('login refuses a wrong id, key or serial number with badauth', async () => {
            const challenge = await device.challenge();
            for (const changes of [{id: 'x'}, {auth_key: 'x'}, {serial_no: 'x'}, {auth_key: ''}]) {
                const {status, json} = await device.login(challenge, changes);
                assert.deepEqual([status, json.code], [200, 'badauth']);
                assert.equal(json.redirect_to, undefined);
            }
            assert.equal((await device.login(challenge)).json.code, 'success');
        });

        test('login answers badauth while the account is refused', async () => {
            const challenge = await device.challenge();
            cloud.settings.refuseAccount = true;
            assert.equal((await device.login(challenge)).json.code, 'badauth');
            cloud.settings.refuseAccount = false;
            assert.equal((await device.login(challenge)).json.code, 'success');
        });

        test('login answers badchallenge for a challenge that is unknown or used', async () => {
            assert.equal((await device.login('unknown')).json.code, 'badchallenge');
            const challenge = await device.challenge();
            const {json} = await device.login(challenge);
            await device.follow(json.redirect_to);
            assert.equal((await device.login(challenge)).json.code, 'badchallenge');
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
                    assert.deepEqual([status, json.code], [400, 'badrequest']);
                    assert.equal(json.message, `${missing} is missing`);
                }
            }
        });

        test('grant refuses a wrong token, client, redirect URI and scope', async () => {
            for (const [expected, changes, token] of [
                [[401, 'badtoken'], {}, 'wrong'],
                [[400, 'badclient'], {client_id: 'nobody'}],
                [[400, 'badredirect'], {redirect_uri: NATIVE.redirectUri}],
                [[400, 'badscope'], {scope: 'unheard.of'}],
            ]) {
                const {status, json} = await device.grant(changes, token);
                assert.deepEqual([status, json.code], expected);
                assert.equal(json.grant, undefined);
            }
        });

        test('other paths, methods and names are not served', async () => {
            assert.equal((await device.account('/token', {})).status, 404);
            assert.equal((await send(`https://${cloud.accountService}${LOGIN}`)).status, 404);
            assert.equal((await send(`${cloud.issuer}${LOGIN}`, {form: {}})).status, 404);
            const headers = {host: `localhost:${cloud.port}`};
            assert.equal((await send(cloud.authorizationEndpoint, {headers})).status, 421);
        });
    });

    describe('grant code', () => {
        for (const client of [WEB, NATIVE]) {
            test(`of ${client.clientId} works with an empty or no code verifier`, async () => {
                device = new Device(cloud, client);
                for (const verifier of ['', undefined]) {
                    const {json} = await device.grant();
                    assert.equal(json.code, 'success');
                    const form = {
                        grant_type: 'authorization_code',
                        code: json.grant,
                        client_id: client.clientId,
                        redirect_uri: client.redirectUri,
                        ...(verifier !== undefined && {code_verifier: verifier}),
                    };
                    const tokens = await send(cloud.tokenEndpoint, {form});
                    assert.equal(tokens.status, 200);
                    assert.equal(tokens.json.scope, 'openid fleet.read');
                    assert.equal((await device.refresh(tokens.json.refresh_token)).status, 200);
                }
            });
        }

        test('bound to no challenge is refused with a verifier, and stays unused', async () => {
            const {json: {grant}} = await device.grant();
            assertRefused(await device.exchange(grant));
            assert.equal((await device.exchange(grant, {code_verifier: ''})).status, 200);
        });

        test('bound to a challenge needs its verifier', async () => {
            cloud.settings.grantChallenge = device.pkce.challenge;
            const {json: {grant}} = await device.grant();
            assertRefused(await device.exchange(grant, {code_verifier: ''}));
            assertRefused(await device.exchange(grant, {code_verifier: pkcePair().verifier}));
            assert.equal((await device.exchange(grant)).status, 200);
        });

        test('can be had without the account service', async () => {
            const {challenge} = device.pkce;
            const code = await cloud.grantCode({...WEB, scope: 'fleet.read', challenge});
            assert.equal((await device.exchange(code)).status, 200);
        });
    });

    describe('token endpoint', () => {
        test('refuses a wrong or empty verifier and leaves the code unused', async () => {
            const code = await device.signIn();
            assertRefused(await device.exchange(code, {code_verifier: pkcePair().verifier}));
            assertRefused(await device.exchange(code, {code_verifier: ''}));
            assertRefused(await device.exchange(code, {code_verifier: 'too-short'}),
                [400, 'invalid_request']);
            assert.equal((await device.exchange(code)).status, 200);
        });

        test('refuses a reused code and revokes what it gave', async () => {
            const code = await device.signIn();
            const {json} = await device.exchange(code);
            assertRefused(await device.exchange(code));
            assertRefused(await device.refresh(json.refresh_token));
            const headers = {authorization: `Bearer ${json.access_token}`};
            assert.equal((await send(`${cloud.issuer}/me`, {headers})).status, 401);
        });

        test('refuses a revoked refresh token', async () => {
            const {json: {refresh_token: token}} = await device.exchange(await device.signIn());
            const form = {token, client_id: device.client.clientId};
            assert.equal((await send(cloud.revocationEndpoint, {form})).status, 200);
            assertRefused(await device.refresh(token));
        });

        test('refuses a rotated refresh token and revokes its successor', async () => {
            const {json: first} = await device.exchange(await device.signIn());
            const {json: second} = await device.refresh(first.refresh_token);
            assertRefused(await device.refresh(first.refresh_token));
            assertRefused(await device.refresh(second.refresh_token));
        });

        test('refuses an expired code', async () => {
            cloud.settings.codeTtl = 0;
            assertRefused(await device.exchange(await device.signIn()));
            const {json} = await device.grant();
            assertRefused(await device.exchange(json.grant, {code_verifier: ''}));
        });

        test('says how long the access token lives', async () => {
            cloud.settings.accessTokenTtl = 7;
            const {json} = await device.exchange(await device.signIn());
            assert.equal(json.expires_in, 7);
        });

        test('gives access tokens that expire without tolerance', async () => {
            cloud.settings.accessTokenTtl = 0;
            const {json} = await device.exchange(await device.signIn());
            const headers = {authorization: `Bearer ${json.access_token}`};
            assert.equal((await send(`${cloud.issuer}/me`, {headers})).status, 401);
        });

        test('refuses what is unknown', async () => {
            const code = await device.signIn();
            assertRefused(await device.exchange('unknown'));
            assertRefused(await device.refresh('unknown'));
            assertRefused(await device.exchange(code, {redirect_uri: 'https://a.localhost/'}));
            assertRefused(await device.exchange(code, {client_id: 'nobody'}),
                [401, 'invalid_client']);
            assertRefused(await device.exchange(code, {grant_type: 'password'}),
                [400, 'unsupported_grant_type']);
            assertRefused(await device.exchange(''), [400, 'invalid_request']);
            assertRefused(await device.exchange(code, {redirect_uri: ''}),
                [400, 'invalid_request']);
        });

        test('keeps more than a thousand entries', async () => {
            const {json} = await device.exchange(await device.signIn());
            for (let i = 0; i < 1100; i++) await cloud.grantCode({...WEB, scope: 'fleet.read'});
            assert.equal((await device.refresh(json.refresh_token)).status, 200);
        });
    });

    describe('request log', () => {
        test('has a record and a line for every request, in order', async () => {
            const challenge = await device.challenge();
            const {json} = await device.login(challenge);
            const {callback} = await device.follow(json.redirect_to);
            const code = param(callback, 'code');
            await device.exchange(code);
            await device.exchange(code);

            const short = (word) => `${word.slice(0, 6)}...`;
            const names = [...new URLSearchParams(cloud.requests[0].url.split('?')[1]).keys()];
            assert.deepEqual(lines, [
                `GET /auth?${names.join('&')} 302 fleet-lens -> ` +
                    `/login?login_challenge=${short(challenge)}`,
                `POST ${LOGIN} 200 fleet-lens/fleet-owner success`,
                `GET /auth/${short(challenge)} 302 fleet-lens/fleet-owner -> ` +
                    `${WEB.redirectUri}?code=${short(code)}&state=${short(device.state)}` +
                    '&iss=https%...',
                'POST /token 200 fleet-lens/fleet-owner authorization_code',
                'POST /token 400 fleet-lens invalid_grant',
            ]);
            assert.deepEqual(cloud.requests.map(({status}) => status), [302, 200, 302, 200, 400]);
            assert.equal(cloud.requests[0].query.client_id, WEB.clientId);
            assert.equal(cloud.requests[1].form.challenge, challenge);
            assert.equal(cloud.requests[1].host, 'account.localhost');
            assert.equal(cloud.requests[2].location, callback);
            assert.equal(cloud.requests[3].form.code_verifier, device.pkce.verifier);
        });

        test('names nobody where nobody is known, and shows errors', async () => {
            await device.authorize({client_id: 'no\nbody', state: 's'});
            await device.authorize({response_type: 'token', state: 's'});
            await device.login('unknown', {id: 'some\none'});
            await device.grant({}, 'wrong');
            assert.match(lines[0], /^GET \/auth\?client_id&\S+ 400 - invalid_client$/);
            assert.match(lines[1],
                / fleet-lens -> \S+[?#]error=\w+&error_description=\S+&state=\.{3}&/);
            assert.equal(lines[2], `POST ${LOGIN} 200 - badauth`);
            assert.equal(lines[3], `POST ${GRANT} 401 - badtoken`);
        });

        test('shows no secret whole', async () => {
            Object.assign(cloud.settings, {consent: true, hops: 1});
            const start = await device.authorize();
            const challenge = param(start.location, 'login_challenge');
            const {json} = await device.login(challenge);
            const {callback} = await device.follow(json.redirect_to);
            const code = param(callback, 'code');
            const {json: tokens} = await device.exchange(code);
            const {json: renewed} = await device.refresh(tokens.refresh_token);
            const {json: {grant}} = await device.grant();

            assert.equal(lines.length, 9);
            assert.match(lines[3],
                /^GET \/consent\?consent_challenge 302 fleet-lens\/fleet-owner -> /);
            const {authKey, pkceAccessToken} = cloud.account;
            const {verifier} = device.pkce;
            for (const secret of [challenge, code, grant, device.state, verifier, authKey,
                                  pkceAccessToken, tokens.access_token, tokens.refresh_token,
                                  tokens.id_token, renewed.access_token, renewed.refresh_token]) {
                assert.equal(typeof secret, 'string');
                assert.deepEqual(lines.filter((line) => line.includes(secret)), []);
            }
        });
    });

    test('an unknown setting is an error', () => {
        assert.throws(() => Object.assign(cloud.settings, {hop: 1}), TypeError);
    });
});

describe('close', () => {
    test('does not wait for connections, and frees the port', async () => {
        const {cert, key} = files;
        const cloud = await startCloud({cert, key});
        const socket = connect(cloud.port, '127.0.0.1');
        await once(socket, 'connect');
        await Promise.all([cloud.close(), once(socket, 'close')]);
        const again = await startCloud({cert, key, port: cloud.port});
        await again.close();
    });
});

describe('command', () => {
    const COMMAND = fileURLToPath(new URL('cloud.mjs', import.meta.url));
    const {ORBA_TLS_CERT, ORBA_TLS_KEY, ...bareEnv} = process.env;
    const tlsEnv = {...bareEnv, ORBA_TLS_CERT: files.cert, ORBA_TLS_KEY: files.key};
    const running = new Set();

    function run(args, env = tlsEnv) {
        const child = spawn(process.execPath, [COMMAND, ...args], {env});
        running.add(child);
        const ended = Promise.all([once(child, 'close'), text(child.stderr)]).then(
            ([[status, signal], stderr]) => (running.delete(child), {status, signal, stderr}));
        return {child, ended, lines: createInterface(child.stdout)[Symbol.asyncIterator]()};
    }

    async function fails(args, env) {
        const {ended, lines} = run(args, env);
        const {status, stderr} = await ended;
        assert.equal((await lines.next()).value, undefined);
        assert.match(stderr, /^cloud: [^\n]+\n$/);
        return {status, stderr};
    }

    after(() => {
        for (const child of running) child.kill('SIGKILL');
    });

    test('says when it is ready, serves a whole login, ends at once on a signal', async () => {
        for (const signal of ['SIGTERM', 'SIGINT']) {
            const ready = join(folder, 'ready.json');
            const profileFile = join(folder, 'device.json');
            const {child, ended, lines} = run(['--ready-file', ready, '--hops', '1',
                '--host-profile', profileFile]);
            const {value: line} = await lines.next();
            const [, port] = line.match(
                /^ready issuer=https:\/\/auth\.localhost:(\d+) account=account\.localhost:\1$/);

            const profile = JSON.parse(readFileSync(profileFile, 'utf8'));
            assert.equal(statSync(profileFile).mode & 0o777, 0o600);
            assert.equal(profile.account_service, `account.localhost:${port}`);
            const account = {
                id: profile.account.id,
                authKey: profile.account.auth_key,
                serialNumber: profile.serial_number,
                pkceAccessToken: profile.pkce_access_token,
            };
            const device = new Device({...JSON.parse(readFileSync(ready, 'utf8')), account});
            assert.equal((await device.exchange(await device.signIn())).status, 200);
            assert.equal((await device.grant()).json.code, 'success');
            assert.match((await lines.next()).value, /^GET \/auth\?\S+ 302 fleet-lens -> /);

            const idle = connect(Number(port), '127.0.0.1');
            await once(idle, 'connect');
            child.kill(signal);
            assert.deepEqual(await ended, {status: 0, signal: null, stderr: ''});
            assert.equal(existsSync(ready), false);
        }
    });

    test('leaves the PKCE access token out of the profile when asked to', async () => {
        const file = join(folder, 'no-token.json');
        const {child, ended, lines} = run(['--host-profile', file, '--no-pkce-token']);
        await lines.next();
        assert.deepEqual(Object.keys(JSON.parse(readFileSync(file, 'utf8'))),
            ['serial_number', 'user_agent', 'account', 'account_service']);
        child.kill('SIGTERM');
        assert.equal((await ended).status, 0);
    });

    test('a busy port ends it with one line', async () => {
        const server = createServer().listen(0, '127.0.0.1');
        await once(server, 'listening');
        const {port} = server.address();
        const {status, stderr} = await fails(['--port', String(port)]);
        server.close();
        assert.equal(status, 1);
        assert.ok(stderr.includes(`127.0.0.1 port ${port}: the port is already in use`));
    });

    test('a missing or wrong certificate ends it with one line', async () => {
        const broken = join(folder, 'broken.pem');
        writeFileSync(broken, 'no certificate');
        await Promise.all([
            [[], bareEnv, 'no TLS certificate'],
            [['--cert', files.cert], bareEnv, 'no TLS certificate'],
            [['--cert', join(folder, 'none.pem')], tlsEnv, 'cannot read the certificate'],
            [['--key', join(folder, 'none.pem')], tlsEnv, 'cannot read the key'],
            [['--cert', broken], tlsEnv, 'PEM'],
            [['--key', files.caKey], tlsEnv, 'key'],
        ].map(async ([args, env, reason]) => {
            const {status, stderr} = await fails(args, env);
            assert.equal(status, 1);
            assert.ok(stderr.includes(reason), stderr);
        }));
    });

    test('a wrong option ends it with one line', async () => {
        const wrong = [['--prot', '1'], ['--port', '70000'], ['--hops', 'many'], ['--port'],
                       ['--port', '-1'], ['stray']];
        await Promise.all(wrong.map(async (args) => {
            assert.equal((await fails(args)).status, 2);
        }));
    });

    test('an unwritable file ends it with one line', async () => {
        await Promise.all(['--ready-file', '--host-profile'].map(async (option) => {
            const file = join(folder, 'none', 'file');
            const {status, stderr} = await fails([option, file]);
            assert.equal(status, 1);
            assert.ok(stderr.includes(file), stderr);
        }));
    });

    test('its help is what the README shows', async () => {
        const {ended, lines} = run(['--help']);
        const readme = readFileSync(new URL('README.md', import.meta.url), 'utf8').split('\n');
        let count = 0;
        for await (const line of lines) {
            assert.ok(readme.includes(line), line);
            count++;
        }
        assert.ok(count > 10);
        assert.equal((await ended).status, 0);
    });
});
