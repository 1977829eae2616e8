// The example against servers that it cannot count on. Runs inside scripts/sandbox, with the program
// named in ORBA_FLEET_LENS.
import assert from 'node:assert/strict';
import {execFile} from 'node:child_process';
import {once} from 'node:events';
import {
    mkdirSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync,
} from 'node:fs';
import {createServer} from 'node:https';
import {join} from 'node:path';
import {test} from 'node:test';

import {startCloud} from '../../cloud/cloud-server.mjs';
import {openLog} from '../integration/log.mjs';

const CALLBACK = 'https://fleet-lens.localhost/callback';

for (const name of ['ORBA_FLEET_LENS', 'ORBA_SANDBOX_KIND']) {
    if (!process.env[name]) throw new Error(`${name} is not set: run this through ctest`);
}

// A service and its folder.
class Service {
    #folder = mkdtempSync('/tmp/example-');

    constructor() {
        this.writeProfile({serial_number: 'ORBA-0123456789', user_agent: 'OrbaNAS/7.2 (example)'});
    }

    path(name) {
        return join(this.#folder, name);
    }

    files() {
        return readdirSync(this.#folder).sort();
    }

    writeProfile(profile) {
        writeFileSync(this.path('device.json'), JSON.stringify(profile));
    }

    writeTokens(tokens) {
        writeFileSync(this.path('tokens'), JSON.stringify(tokens), {mode: 0o600});
    }

    readTokens() {
        return JSON.parse(readFileSync(this.path('tokens'), 'utf8'));
    }

    run(...endpoints) {
        const env = {...process.env, ORBA_HOST_PROFILE: this.path('device.json')};
        return new Promise((resolve) => {
            this.process = execFile(process.env.ORBA_FLEET_LENS, [...endpoints, this.path('tokens')],
                {env}, (error, stdout, stderr) => resolve({status: error?.code ?? 0, stdout, stderr}));
        });
    }

    remove() {
        rmSync(this.#folder, {recursive: true});
    }
}

// handle(request, body, origin) returns [status, headers, body as JSON].
async function startServer(handle) {
    const server = createServer({
        cert: readFileSync(process.env.ORBA_TLS_CERT), key: readFileSync(process.env.ORBA_TLS_KEY),
    });
    const bodies = [];
    let origin;
    server.on('request', async (request, response) => {
        let body = '';
        for await (const piece of request) body += piece;
        bodies.push(body);
        const [status, headers, reply] = handle(request, body, origin);
        response.writeHead(status, {'content-type': 'application/json', ...headers});
        response.end(JSON.stringify(reply));
    });
    await once(server.listen(0, '127.0.0.1'), 'listening');
    origin = `https://auth.localhost:${server.address().port}`;
    return {origin, port: server.address().port, bodies, close: () => server.close()};
}

function withService(name, body) {
    test(name, async () => {
        const service = new Service();
        try {
            await body(service);
        } finally {
            service.remove();
        }
    });
}

// --- the refresh ---

// body(service, server), with a token endpoint that gives everyone the same answer.
function withTokenEndpoint(name, status, reply, body) {
    withService(name, async (service) => {
        const server = await startServer(() => [status, {}, reply]);
        try {
            await body(service, server, () => service.run(`${server.origin}/token`));
        } finally {
            server.close();
        }
    });
}

withTokenEndpoint('refresh: a refresh token that the reply does not carry stays', 200,
    {access_token: 'a2'}, async (service, server, refresh) => {
        service.writeTokens({access_token: 'a1', refresh_token: 'r1'});
        const {status, stdout, stderr} = await refresh();
        assert.deepEqual({status, stderr}, {status: 0, stderr: ''});
        assert.match(stdout, /^refreshed the tokens\ndevice fingerprint .+\n$/);
        assert.deepEqual(service.readTokens(), {access_token: 'a2', refresh_token: 'r1'});
        assert.equal(statSync(service.path('tokens')).mode & 0o777, 0o600);
        assert.deepEqual(service.files(), ['device.json', 'tokens', 'tokens.lock']);
    });

withTokenEndpoint('refresh: a refresh token of any letters is sent as it is', 200,
    {access_token: 'a2'}, async (service, server, refresh) => {
        const token = 'r+1&scope=all%41=é';
        service.writeTokens({access_token: 'a1', refresh_token: token});
        assert.equal((await refresh()).status, 0);
        const sent = new URLSearchParams(server.bodies[0]);
        assert.deepEqual([...sent.keys()], ['grant_type', 'refresh_token', 'client_id']);
        assert.equal(sent.get('refresh_token'), token);
        assert.equal(service.readTokens().refresh_token, token);
    });

withTokenEndpoint('refresh: tokens that cannot be kept are not asked for', 200,
    {access_token: 'a2'}, async (service, server, refresh) => {
        service.writeTokens({refresh_token: 'r1'});
        mkdirSync(service.path('tokens.lock'));
        const {status, stderr} = await refresh();
        assert.deepEqual({status, stderr}, {
            status: 1,
            stderr: `fleet-lens: std::runtime_error: cannot lock ${service.path('tokens.lock')}\n`,
        });
        assert.deepEqual(server.bodies, []);
        assert.deepEqual(service.readTokens(), {refresh_token: 'r1'});
    });

withTokenEndpoint('refresh: a refused refresh token leaves the file and says what comes next', 400,
    {error: 'invalid_grant'}, async (service, server, refresh) => {
        service.writeTokens({refresh_token: 'r1'});
        const {status, stdout, stderr} = await refresh();
        assert.deepEqual({status, stdout}, {status: 1, stdout: ''});
        assert.match(stderr, /^fleet-lens: code 14, [^\n]* \(sign in again\)\n$/);
        assert.deepEqual(service.readTokens(), {refresh_token: 'r1'});
    });

// The codes that the example gives advice about, and one that it does not.
for (const [status, code, next] of [
    [401, 14, 'sign in again'], [500, 15, 'try again later'], [503, 17, 'try again later'],
    [302, 28, 'report it'],
]) {
    withTokenEndpoint(`refresh: the status ${status} is code ${code}: ${next}`, status, {},
        async (service, server, refresh) => {
            service.writeTokens({refresh_token: 'r1'});
            const {stderr} = await refresh();
            assert.match(stderr, new RegExp(`^fleet-lens: code ${code}, [^\\n]* \\(${next}\\)\\n$`));
        });
}

for (const [what, url, code] of [
    ['nobody listens', 'https://auth.localhost:1/token', 26],
    ['the name does not resolve', 'https://nowhere.invalid/token', 31],
]) {
    withService(`refresh: ${what}: code ${code}, try again later`, async (service) => {
        service.writeTokens({refresh_token: 'r1'});
        const {stderr} = await service.run(url);
        assert.match(stderr, new RegExp(`^fleet-lens: code ${code}, [^\\n]* \\(try again later\\)\\n$`));
    });
}

withTokenEndpoint('refresh: a reply without an access token is not taken', 200,
    {error: 'temporarily_unavailable'}, async (service, server, refresh) => {
        service.writeTokens({refresh_token: 'r1'});
        const {status, stderr} = await refresh();
        assert.deepEqual({status, stderr}, {
            status: 1, stderr: 'fleet-lens: std::runtime_error: no access token came, or it could not be written\n',
        });
        assert.deepEqual(service.readTokens(), {refresh_token: 'r1'});
    });

withTokenEndpoint('refresh: without a token file nobody is asked', 200, {access_token: 'a2'},
    async (service, server, refresh) => {
        const {status, stderr} = await refresh();
        assert.equal(status, 1);
        assert.match(stderr, /^fleet-lens: Json::[^\n]+\n$/);
        assert.deepEqual(server.bodies, []);
    });

withService('refresh: five at once against a server that rotates refresh tokens', async (service) => {
    const cloud = await startCloud();
    try {
        service.writeProfile(cloud.profile);
        const signedIn = await service.run(cloud.authorizationEndpoint, cloud.tokenEndpoint);
        assert.equal(signedIn.status, 0, signedIn.stderr);
        const answers = await Promise.all(
            Array.from({length: 5}, () => service.run(cloud.tokenEndpoint)));
        assert.deepEqual(answers.map(({status, stderr}) => ({status, stderr})),
            Array(5).fill({status: 0, stderr: ''}));
    } finally {
        await cloud.close();
    }
});

// --- what others could read ---

withService('no debug line leaves the process, and no core dump would show its memory', async (service) => {
    const log = await openLog();
    const cloud = await startCloud();
    let limits = '';
    const server = await startServer(() => {
        limits = readFileSync(`/proc/${service.process.pid}/limits`, 'utf8');
        return [200, {}, {access_token: 'a2'}];
    });
    try {
        service.writeProfile({...cloud.profile, pkce_access_token: undefined});
        const signedIn = await service.run(cloud.authorizationEndpoint, cloud.tokenEndpoint);
        assert.equal(signedIn.status, 0, signedIn.stderr);
        const [warning, ...more] = await log.take();
        assert.equal(warning.priority, 4);
        assert.match(warning.text, /Failed to get Tovra access token\./);
        assert.deepEqual(more, []);
        assert.equal((await service.run(`${server.origin}/token`)).status, 0);
        assert.match(limits, /^Max core file size +0 +0 /m);
    } finally {
        server.close();
        await cloud.close();
        await log.close();
    }
});

// --- the login ---

// An OAuth2 server and account service in one, whose login is redirected to target(state) at its end.
function withLogin(name, target, tokens, body) {
    withService(name, async (service) => {
        let state;
        const server = await startServer((request, form, origin) => {
            const {pathname, searchParams} = new URL(request.url, origin);
            switch (pathname) {
                case '/auth':
                    state = searchParams.get('state');
                    return [302, {location: `${origin}/login?login_challenge=c`}];
                case '/device/api/fleet_lens_login':
                    return [200, {}, {code: 'success', redirect_to: `${origin}/resume`}];
                case '/resume':
                    return [302, {location: target(state)}];
                default:
                    return [200, {}, tokens];
            }
        });
        service.writeProfile({
            serial_number: 'ORBA-0123456789', user_agent: 'OrbaNAS/7.2 (example)',
            account: {id: 'account-1', auth_key: 'key-1'},
            account_service: `account.localhost:${server.port}`,
        });
        try {
            await body(service, server,
                await service.run(`${server.origin}/auth`, `${server.origin}/token`));
        } finally {
            server.close();
        }
    });
}

const TOKENS = {access_token: 'a1', refresh_token: 'r1'};
const exchanges = ({bodies}) => bodies.filter((body) => body.startsWith('grant_type=authorization_code'));

// The login failed with the text, and nobody saw the code.
function refused(service, server, {status, stdout, stderr}, text) {
    assert.deepEqual({status, stdout}, {status: 1, stdout: ''});
    assert.equal(stderr, `fleet-lens: std::runtime_error: ${text}\n`);
    assert.deepEqual(exchanges(server), []);
    assert.deepEqual(service.files(), ['device.json', 'tokens.lock']);
}

withLogin('login: parameters whose names end like the wanted ones are not taken for them',
    (state) => `${CALLBACK}?session_state=s&my_code=m&state=${state}&code=the%2Bcode`, TOKENS,
    async (service, server, {status, stderr}) => {
        assert.deepEqual({status, stderr}, {status: 0, stderr: ''});
        assert.equal(new URLSearchParams(exchanges(server)[0]).get('code'), 'the+code');
        assert.deepEqual(service.files(), ['device.json', 'tokens', 'tokens.lock']);
    });

withLogin('login: another state is refused',
    () => `${CALLBACK}?code=c&state=other`, TOKENS, (service, server, answer) => refused(
        service, server, answer, 'the callback carries another state than our request'));

for (const [what, target] of [
    ['that holds the callback', `https://elsewhere.test/?next=${CALLBACK}?code=c`],
    ['that begins like the callback', `${CALLBACK}.elsewhere.test/?code=c`],
]) {
    withLogin(`login: another URL ${what} is refused`, () => target, TOKENS,
        (service, server, answer) => refused(service, server, answer, `the login ended at ${target}`));
}

withLogin('login: an exchange that gives no access token leaves no token file',
    (state) => `${CALLBACK}?code=c&state=${state}`, {error: 'temporarily_unavailable'},
    async (service, server, {status, stderr}) => {
        assert.equal(status, 1);
        assert.equal(stderr, 'fleet-lens: std::runtime_error: no access token came, or it could not be written\n');
        assert.deepEqual(service.files(), ['device.json', 'tokens.lock']);
    });
