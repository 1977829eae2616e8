// What the session's tests share: an OAuth2 server and account service whose replies each test decides,
// a device, and sessions on it.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {createHash, randomBytes} from 'node:crypto';
import {once} from 'node:events';
import {
    existsSync, mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, writeFileSync,
} from 'node:fs';
import {join} from 'node:path';
import {createInterface} from 'node:readline';

import {GOOD} from '../../integration/certificates.mjs';
import {redirect, reply, startServer} from '../../integration/lab.mjs';

export {redirect, reply} from '../../integration/lab.mjs';

const PROBE = process.env.ORBA_SESSION_PROBE;
const USER_AGENT = 'OrbaNAS/7.2 (session)';
export const REDIRECT_URI = 'https://fleet-lens.localhost/callback';
export const SCOPE = 'openid offline_access fleet.read';

const secret = (kind) => `${kind}-${randomBytes(18).toString('base64url')}+/=`;

export function json(value, status = 200, headers = []) {
    const lines = ['Content-Type: application/json', ...headers];
    return reply(status, {headers: lines, body: JSON.stringify(value)});
}

// A refusal by RFC 6749, 5.2.
export const refusal = (error, status = 400, headers = []) => json({error}, status, headers);

// ---- The servers ---------------------------------------------------------------------------------

// Authorization endpoint, account service, token endpoint and revocation on one port. Refresh tokens
// rotate, codes are good once. `script.NAME` answers in an endpoint's place: bytes, a misbehaviour from
// below, or a function of the request that gives one of them; undefined: the endpoint's own answer.
class Cloud {
    requests = []; // {name, path, query, form, headers, time}
    secrets = new Set(); // what must not be found anywhere
    script = {};
    lifetime = 3600;
    account = 'account-1';
    pkceToken = secret('pkce');
    authKey = secret('key');
    #pending = new Map(); // state and challenge of sign-ins
    #refreshTokens = new Set();
    #count = 0;

    static async start(t, options = {}) {
        const cloud = Object.assign(new Cloud(), options);
        cloud.server = await startServer(t, (connection) => cloud.#serve(connection), {tls: GOOD});
        t.after(() => cloud.#check());
        cloud.url = cloud.server.url.replace(/\/$/, '');
        [cloud.pkceToken, cloud.authKey].forEach((text) => cloud.secrets.add(text));
        return cloud;
    }

    settings = (folder) => ({
        authorizationEndpoint: `${this.url}/auth`,
        tokenEndpoint: `${this.url}/token`,
        clientId: 'fleet-lens',
        redirectUri: REDIRECT_URI,
        scope: SCOPE,
        tokenFile: join(folder, 'tokens.json'),
    });

    profile = ({grant = false} = {}) => ({
        serial_number: 'ORBA-0123456789',
        user_agent: USER_AGENT,
        account: {id: this.account, auth_key: this.authKey},
        account_service: this.url.replace('https://', ''),
        ...(grant && {pkce_access_token: this.pkceToken}),
    });

    // The names of the requests made, in order, since the last call.
    #taken = 0;
    take() {
        const names = this.requests.slice(this.#taken).map(({name}) => name);
        this.#taken = this.requests.length;
        return names;
    }

    count = (name) => this.requests.filter((request) => request.name === name).length;

    last = (name) => this.requests.findLast((request) => request.name === name);

    secret(kind) {
        const text = secret(kind);
        this.secrets.add(text);
        return text;
    }

    tokens(more = {}) {
        this.#count += 1;
        const reply = {
            access_token: this.secret('access').replaceAll('=', `_${this.#count}`),
            token_type: 'Bearer',
            expires_in: this.lifetime,
            refresh_token: this.secret('refresh'),
            scope: SCOPE,
            id_token: this.secret('id'),
            ...more,
        };
        Object.values(reply).forEach((v) => /^(access|refresh|id)-/.test(v) && this.secrets.add(v));
        if (reply.refresh_token) this.#refreshTokens.add(reply.refresh_token);
        return reply;
    }

    code(details = {}) {
        const code = this.secret('code');
        this.#pending.set(code, details);
        return code;
    }

    revokeAll = () => this.#refreshTokens.clear();

    callback({state, challenge}, more = {}) {
        const query = new URLSearchParams({code: this.code({challenge}), state, ...more});
        return redirect(`${REDIRECT_URI}?${query}`);
    }

    // Whatever a test is about: no code is sent twice, and each request has a connection of its own.
    #check() {
        const codes = this.requests.map(({form}) => form.code).filter(Boolean);
        assert.equal(new Set(codes).size, codes.length, 'a code was sent twice');
        assert.ok(this.requests.length <= this.server.arrivals.length, 'a connection was kept');
    }

    #endpoints = {
        auth: ({query}) => {
            const id = this.secret('challenge');
            this.#pending.set(id, {...query, challenge: query.code_challenge});
            const cookie = this.secret('cookie');
            this.#pending.get(id).cookie = `login=${encodeURIComponent(cookie)}`;
            return reply(302, {headers: [
                `Location: ${this.url}/login?${new URLSearchParams({login_challenge: id})}`,
                `Set-Cookie: login=${encodeURIComponent(cookie)}; Path=/; Secure; HttpOnly`,
            ]});
        },
        login: ({form}) => {
            if (form.auth_key !== this.authKey) return json({code: 'badauth'});
            const query = new URLSearchParams({challenge: form.challenge});
            return json({code: 'success', redirect_to: `${this.url}/resume?${query}`});
        },
        resume: ({query, headers}) => {
            const pending = this.#pending.get(query.challenge);
            return headers.cookie === pending?.cookie ? this.callback(pending) : reply(400);
        },
        grant: ({form}) => json({code: 'success', grant: this.code({uri: form.redirect_uri})}),
        token: ({form}) => {
            if (form.grant_type === 'refresh_token') {
                const known = this.#refreshTokens.delete(form.refresh_token);
                return known ? json(this.tokens()) : refusal('invalid_grant');
            }
            const details = this.#pending.get(form.code);
            this.#pending.delete(form.code);
            const hash = createHash('sha256').update(form.code_verifier ?? '').digest('base64url');
            const good = details && (details.challenge ?? '') === (form.code_verifier ? hash : '');
            return good ? json(this.tokens()) : refusal('invalid_grant');
        },
        revoke: ({form}) => (this.#refreshTokens.delete(form.token), reply(200)),
    };

    #names = {
        '/device/api/fleet_lens_login': 'login',
        '/device/api/fleet_lens_grant': 'grant',
    };

    // The bytes with which the endpoint would answer.
    answerTo = (name, request) => this.#endpoints[name](request);

    async #serve(connection) {
        const raw = await connection.request();
        const [head, body] = raw.split('\r\n\r\n');
        const [line, ...lines] = head.split('\r\n');
        const [method, target] = line.split(' ');
        const {pathname, searchParams} = new URL(target, this.url);
        const name = this.#names[pathname] ?? pathname.slice(1);
        const headers = Object.fromEntries(lines.map((text) => {
            const colon = text.indexOf(':');
            return [text.slice(0, colon).toLowerCase(), text.slice(colon + 1).trim()];
        }));
        const request = {name, method, path: pathname, headers, body, time: performance.now(),
            target: [...searchParams],
            query: Object.fromEntries(searchParams),
            form: Object.fromEntries(new URLSearchParams(body))};
        this.requests.push(request);
        for (const {state, code_verifier: verifier} of [request.query, request.form]) {
            [state, verifier].forEach((text) => text && this.secrets.add(text));
        }
        let answer = this.script[name] ?? this.#endpoints[name] ?? reply(404);
        if (typeof answer === 'function') answer = await answer(request);
        if (answer === undefined) answer = await this.#endpoints[name](request);
        if (answer.misbehave) await answer.misbehave(connection);
        else connection.socket.end(answer);
    }
}

// ---- Replies that misbehave ----------------------------------------------------------------------

export const hang = {misbehave: () => {}};
export const cut = (bytes, length) => bytes.subarray(0, length);

// Every so many milliseconds the next piece; whether it is too slow is the client's to say.
export const dribble = (bytes, milliseconds, size = 1) => ({misbehave: async ({socket}) => {
    for (let at = 0; at < bytes.length && !socket.destroyed; at += size) {
        socket.write(bytes.subarray(at, at + size));
        await sleep(milliseconds);
    }
    socket.end();
}});

export const endless = (head, piece) => ({misbehave: ({socket}) => {
    const send = () => {
        while (!socket.destroyed && socket.write(piece));
        socket.once('drain', send);
    };
    socket.write(head);
    send();
}});

// ---- The device and its services -----------------------------------------------------------------

// A process with sessions. An operation's answer has its result's members, or `code`, `remedy`,
// `retryAfter`, `serverError` and `what` of the exception; and `seconds`.
class Service {
    #waiting = new Map();
    #count = 0;

    constructor(t, env = {}, command = [PROBE]) {
        if (!PROBE) throw new Error('ORBA_SESSION_PROBE does not name the probe program');
        const [program, ...args] = command;
        this.child = spawn(program, args, {
            env: {...process.env, ...env}, stdio: ['pipe', 'pipe', 'inherit'],
        });
        this.exited = once(this.child, 'exit').then(([code, signal]) => {
            const error = new Error(`the probe ended with ${signal ?? code}`);
            this.#waiting.forEach(({reject}) => reject(error));
            return signal ?? code;
        });
        createInterface({input: this.child.stdout}).on('line', (line) => {
            const answer = JSON.parse(line);
            this.#waiting.get(answer.id).resolve(answer);
            this.#waiting.delete(answer.id);
        });
        this.child.stdin.on('error', () => {});
        t.after(() => this.end());
    }

    call(op, request = {}) {
        this.#count += 1;
        const id = this.#count;
        this.child.stdin.write(`${JSON.stringify({id, op, ...request})}\n`);
        return new Promise((resolve, reject) => this.#waiting.set(id, {resolve, reject}));
    }

    async open(settings, session = 'default') {
        return new SessionOf(this, session, await this.call('open', {settings, session, inline: true}));
    }

    // Seconds that clocks are ahead of the truth.
    clock = (realtime, boottime = realtime) => this.call('clock', {realtime, boottime, inline: true});

    async end() {
        this.child.stdin.end();
        return this.exited;
    }

    async kill() {
        this.child.kill('SIGKILL');
        await this.exited;
    }
}

class SessionOf {
    constructor(service, session, opened) {
        Object.assign(this, {service, session, opened});
    }
    call = (op, more) => this.service.call(op, {session: this.session, ...more});
    token = (more) => this.call('token', more);
    renew = (refused, more) => this.call('renew', {refused, ...more});
    signOut = () => this.call('signOut');
    cancel = (more) => this.call('cancel', more);
    close = () => this.call('close');
    fork = (more) => this.call('fork', {inline: true, ...more});
}

// A cloud, a device with an account and a folder for the token file, and services on it.
export class World {
    static async create(t, {grant = false, settings = {}, folder, ...cloud} = {}) {
        const world = new World();
        world.t = t;
        world.cloud = await Cloud.start(t, cloud);
        const root = mkdtempSync(folder ? join(folder, 's-') : '/tmp/session-');
        t.after(() => rmSync(root, {recursive: true, force: true}));
        world.root = root;
        world.folder = join(root, 'service');
        mkdirSync(world.folder, {mode: 0o700});
        world.profileFile = join(root, 'device.json');
        world.link(world.cloud.profile({grant}));
        world.settings = {...world.cloud.settings(world.folder), ...settings};
        world.tokenFile = world.settings.tokenFile;
        world.work = `${world.tokenFile}.work`;
        return world;
    }

    link = (profile) => writeFileSync(this.profileFile, JSON.stringify(profile), {mode: 0o600});

    service = (env, command) =>
        new Service(this.t, {ORBA_HOST_PROFILE: this.profileFile, ...env}, command);

    // A session in the world's one service, or in `service`; `settings` are changes.
    #services = 0;
    async open(settings = {}, {service, name} = {}) {
        this.main ??= service ?? this.service();
        this.#services += 1;
        return (service ?? this.main)
            .open({...this.settings, ...settings}, name ?? `session ${this.#services}`);
    }

    read = (path) => readFileSync(path, 'utf8');
    stored = () => JSON.parse(this.read(this.tokenFile));
    store = (value, mode = 0o600) => writeFileSync(this.tokenFile,
        typeof value === 'string' ? value : JSON.stringify(value), {mode});
}

// An authorization endpoint that needs no login: two requests less, where a test is about something else.
export const loggedIn = (cloud) => ({query: {state, code_challenge: challenge}}) =>
    cloud.callback({state, challenge});

// A world with a session that has signed in.
export async function signedIn(t, options) {
    const world = await World.create(t, options);
    const session = await world.open();
    world.cloud.script.auth = loggedIn(world.cloud);
    const token = succeeded(await session.token());
    delete world.cloud.script.auth;
    world.cloud.take();
    return Object.assign(world, {session, token});
}

// ---- Assertions ----------------------------------------------------------------------------------

export function succeeded(answer) {
    assert.equal(answer.what, undefined);
    return answer;
}

// `expected`: some of code, remedy, serverError and retryAfter.
export function failed(answer, expected) {
    assert.ok(answer.what, `it succeeded: ${JSON.stringify(answer)}`);
    const got = Object.fromEntries(Object.keys(expected).map((name) => [name, answer[name]]));
    assert.deepEqual(got, expected, answer.what);
    assert.equal(answer.class, 'ORBA::OAuth2Session::SessionException');
    return answer;
}

// Every regular file below the folder.
export function filesBelow(folder) {
    if (!existsSync(folder)) return [];
    return readdirSync(folder, {withFileTypes: true}).flatMap((entry) => {
        const path = join(folder, entry.name);
        if (entry.isDirectory()) return filesBelow(path);
        return entry.isFile() ? [path] : [];
    });
}

// As it is, percent-encoded and as a JSON text.
const formsOf = (text) => [text, encodeURIComponent(text), JSON.stringify(text).slice(1, -1),
    text.replaceAll('/', '\\/'), encodeURIComponent(text).toLowerCase()];

// The secrets that are in the text.
export function secretsIn(text, secrets) {
    return [...secrets].filter((one) => formsOf(one).some((form) => text.includes(form)));
}

// Where secrets are in files below the folder but the excepted ones.
export function filesWithSecrets(folder, secrets, except = []) {
    return filesBelow(folder).filter((path) => !except.includes(path) &&
        secretsIn(readFileSync(path, 'latin1'), secrets).length > 0);
}

export const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
