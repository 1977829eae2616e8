// The session's programs, orba-token and the example fleet-lens, against the test cloud. Runs inside
// scripts/sandbox, with the programs named in ORBA_TOKEN and ORBA_FLEET_LENS.
import assert from 'node:assert/strict';
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {existsSync, mkdtempSync, openSync, readFileSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:net';
import {after, before, beforeEach, test} from 'node:test';

import {DEFAULT_SETTINGS, startCloud} from '../../cloud/cloud-server.mjs';

const USAGE = 'usage: orba-token [--renew | --sign-out] SETTINGS.json\n';

let cloud;
let folder;
let settings;

const path = (name) => `${folder}/${name}`;
const tokens = () => JSON.parse(readFileSync(path('tokens.json')));
const seen = () => cloud.requests.splice(0).map(({path: name, outcome}) => `${name} ${outcome}`);

const SIGN_IN = ['/device/api/fleet_lens_grant success', '/token authorization_code'];
const REFRESH = ['/token refresh_token'];

// Changes the settings file; a member that is undefined is left out.
function writeSettings(changes = {}) {
    writeFileSync(path('settings.json'), JSON.stringify({...settings, ...changes}));
}

function start(args, stdout = 'pipe', program = process.env.ORBA_TOKEN) {
    const child = spawn(program, args, {
        env: {...process.env, ORBA_HOST_PROFILE: path('device.json')}, stdio: ['pipe', stdout, 'pipe'],
    });
    child.printed = {stdout: '', stderr: ''};
    for (const name of ['stdout', 'stderr']) child[name]?.on('data', (data) => (child.printed[name] += data));
    return child;
}

async function finish(child, input = '') {
    child.stdin.on('error', () => {}).end(input);
    const [status, signal] = await once(child, 'close');
    return {status: status ?? signal, ...child.printed};
}

const orbaToken = (args = [path('settings.json')], input) => finish(start(args), input);
const renew = (refused) => orbaToken(['--renew', path('settings.json')], refused);

async function assertFails(call, expectedStatus, expectedText) {
    const {status, stdout, stderr} = await call;
    assert.deepEqual({status, stdout}, {status: expectedStatus, stdout: ''}, stderr);
    assert.match(stderr, expectedText);
    assert.match(stderr, /^orba-token: [^\n]+\n$/);
}

before(async () => {
    for (const name of ['ORBA_TOKEN', 'ORBA_FLEET_LENS', 'ORBA_SANDBOX_KIND']) {
        assert.ok(process.env[name], `${name} is not set: run this through ctest`);
    }
    cloud = await startCloud();
});

after(() => cloud.close());

beforeEach(() => {
    folder = mkdtempSync('/tmp/token-');
    Object.assign(cloud.settings, DEFAULT_SETTINGS);
    cloud.requests.length = 0;
    writeFileSync(path('device.json'), JSON.stringify(cloud.profile));
    settings = {
        authorizationEndpoint: cloud.authorizationEndpoint, tokenEndpoint: cloud.tokenEndpoint,
        revocationEndpoint: cloud.revocationEndpoint, clientId: 'fleet-lens',
        redirectUri: 'https://fleet-lens.localhost/callback', scope: 'openid offline_access fleet.read',
        tokenFile: path('tokens.json'), margin: 60, timeout: 120000,
    };
    writeSettings();
});

function withFolder(name, body) {
    test(name, async () => {
        try {
            await body();
        } finally {
            rmSync(folder, {recursive: true});
        }
    });
}

withFolder('prints a token and a newline, the same one without a request', async () => {
    const first = await orbaToken();
    assert.deepEqual(first, {status: 0, stdout: `${tokens().access_token}\n`, stderr: ''});
    assert.deepEqual(seen(), SIGN_IN);
    assert.deepEqual(await orbaToken(), first);
    assert.deepEqual(seen(), []);
});

withFolder('eight at once make one request', async () => {
    const all = await Promise.all(Array.from({length: 8}, () => orbaToken()));
    assert.deepEqual(all, Array(8).fill({status: 0, stdout: `${tokens().access_token}\n`, stderr: ''}));
    assert.deepEqual(seen(), SIGN_IN);
});

withFolder('optional settings may be missing', async () => {
    writeSettings({revocationEndpoint: undefined, margin: undefined, timeout: undefined});
    assert.equal((await orbaToken()).status, 0);
});

withFolder('--renew: replaces a refused token, answers an old one with the one at hand', async () => {
    const {stdout: first} = await orbaToken();
    seen();
    await assertFails(renew(first), 75, /40|new/);
    const stored = tokens();
    writeFileSync(path('tokens.json'), JSON.stringify({...stored, expires_at: stored.expires_at - 60}));
    const second = await renew(first);
    assert.deepEqual(second, {status: 0, stdout: `${tokens().access_token}\n`, stderr: ''});
    assert.notEqual(second.stdout, first);
    assert.deepEqual(seen(), REFRESH);
    assert.deepEqual(await renew(first), second);
    assert.deepEqual(seen(), []);
});

withFolder('--renew: no token on standard input is wrong usage', async () => {
    await assertFails(renew(''), 64, /no token on standard input/);
    await assertFails(renew('\n'), 64, /no token on standard input/);
});

withFolder('--sign-out: revokes and removes', async () => {
    await orbaToken();
    seen();
    const done = {status: 0, stdout: '', stderr: ''};
    assert.deepEqual(await orbaToken(['--sign-out', path('settings.json')]), done);
    assert.equal(existsSync(path('tokens.json')), false);
    assert.deepEqual(seen().map((request) => request.split(' ')[0]), ['/token/revocation']);
});

withFolder('--sign-out: says when the server could not be told', async () => {
    await orbaToken();
    writeSettings({revocationEndpoint: `${cloud.issuer}/nowhere`});
    assert.deepEqual(await orbaToken(['--sign-out', path('settings.json')]), {
        status: 0, stdout: '', stderr: 'orba-token: signed out here, but the server could not be told\n',
    });
    assert.equal(existsSync(path('tokens.json')), false);
});

// --- failures ---

withFolder('69: no linked account', async () => {
    writeFileSync(path('device.json'), JSON.stringify({...cloud.profile, account: undefined}));
    await assertFails(orbaToken(), 69, /account/);
    assert.deepEqual(seen(), []);
});

withFolder('75: the server is away; the next call says so without asking', async () => {
    writeSettings({authorizationEndpoint: 'https://auth.localhost:1/', tokenEndpoint: 'https://auth.localhost:1/'});
    await assertFails(orbaToken(), 75, /; try again in [12] s\n/);
    await assertFails(orbaToken(), 75, /; try again in [12] s\n/);
});

withFolder('78: the server does not know the client', async () => {
    writeSettings({clientId: 'nobody'});
    await assertFails(orbaToken(), 78, /./);
});

withFolder('74: the token file has no folder', async () => {
    writeSettings({tokenFile: path('none/tokens.json')});
    await assertFails(orbaToken(), 74, /./);
    assert.deepEqual(seen(), []);
});

withFolder('74: standard output is full', async () => {
    const {status, stderr} = await finish(start([path('settings.json')], openSync('/dev/full', 'w')));
    assert.deepEqual({status, stderr}, {status: 74, stderr: 'orba-token: cannot write to standard output\n'});
});

for (const [what, content, text] of [
    ['is missing', undefined, /cannot be read/],
    ['is not JSON', '{"clientId": "a",}', /not a JSON object/],
    ['is no object', '[]', /not a JSON object/],
    ['has a member twice', '{"scope": "a", "scope": "b"}', /not a JSON object/],
    ['has text behind it', '{} {}', /not a JSON object/],
    ['has an unknown member', '{"client_id": "a"}', /unknown member client_id/],
    ['has a number for a text', '{"clientId": 1}', /wrong type of clientId/],
    ['has a text for a number', '{"margin": "60"}', /wrong type of margin/],
    ['has a timeout that is no whole number', '{"timeout": 1.5}', /wrong type of timeout/],
    ['has a number that is too large', '{"timeout": 1e12}', /wrong type of timeout/],
    ['is empty of settings', '{}', /authorizationEndpoint/],
]) {
    withFolder(`78: the settings file ${what}`, async () => {
        if (content === undefined) rmSync(path('settings.json'));
        else writeFileSync(path('settings.json'), content);
        await assertFails(orbaToken(), 78, text);
        assert.deepEqual(seen(), []);
    });
}

withFolder('78: a setting that the session refuses is named', async () => {
    for (const changes of [{margin: -1}, {timeout: 999}, {tokenFile: 'tokens.json'}, {scope: undefined},
        {tokenEndpoint: 'http://auth.localhost/token'}]) {
        writeSettings(changes);
        await assertFails(orbaToken(), 78, new RegExp(Object.keys(changes)[0]));
    }
    assert.deepEqual(seen(), []);
});

withFolder('64: wrong usage', async () => {
    const file = path('settings.json');
    for (const args of [[], ['--nonsense', file], ['--renew'], [file, '--renew'], ['--renew', '--sign-out', file],
        [file, file], ['-h', file]]) {
        assert.deepEqual(await orbaToken(args), {status: 64, stdout: '', stderr: USAGE});
    }
});

withFolder('--help and --version print what they say', async () => {
    for (const option of ['-h', '--help']) {
        const {status, stdout, stderr} = await orbaToken([option]);
        assert.deepEqual({status, stderr}, {status: 0, stderr: ''});
        assert.ok(stdout.startsWith(USAGE) && stdout.includes('--renew '));
    }
    const {stdout} = await orbaToken(['--version']);
    assert.match(stdout, /^orba-token \d+\.\d+\.\d+\n$/);
});

// --- signals ---

for (const signal of ['SIGINT', 'SIGTERM']) {
    withFolder(`${signal} ends it within a second, also while it waits for a server`, async () => {
        const sockets = [];
        const silent = createServer((socket) => sockets.push(socket));
        await once(silent.listen(0, '127.0.0.1'), 'listening');
        writeFileSync(path('device.json'), JSON.stringify({...cloud.profile, pkce_access_token: undefined}));
        const endpoint = `https://auth.localhost:${silent.address().port}/`;
        writeSettings({authorizationEndpoint: endpoint, tokenEndpoint: endpoint});
        const child = start([path('settings.json')]);
        await once(silent, 'connection');
        const begin = performance.now();
        child.kill(signal);
        const {status, stdout} = await finish(child);
        const time = performance.now() - begin;
        sockets.forEach((socket) => socket.destroy());
        silent.close();
        assert.deepEqual({status, stdout}, {status: signal, stdout: ''});
        assert.ok(time < 1000, `it took ${time} ms`);
    });
}

// --- fleet-lens ---

function fleetLens(input, args = [settings.authorizationEndpoint, settings.tokenEndpoint, settings.tokenFile]) {
    return finish(start(args, 'pipe', process.env.ORBA_FLEET_LENS), input);
}

withFolder('fleet-lens: two reports, one sign-in', async () => {
    const {status, stdout, stderr} = await fleetLens('one\ntwo\n');
    assert.deepEqual({status, stderr}, {status: 0, stderr: ''});
    assert.match(stdout, /^sent "one" with a token for another 3[56]\d\d s\nsent "two" .*\n$/);
    assert.deepEqual(seen(), SIGN_IN);
});

withFolder('fleet-lens: the exit status says whether to try later', async () => {
    const later = await fleetLens('one\n', ['https://auth.localhost:1/', 'https://auth.localhost:1/', settings.tokenFile]);
    assert.equal(later.status, 75);
    assert.match(later.stderr, /^fleet-lens: [^\n]+\n$/);
    writeFileSync(path('device.json'), JSON.stringify({...cloud.profile, account: undefined}));
    assert.equal((await fleetLens('one\n')).status, 1);
    assert.equal((await fleetLens('', [])).status, 2);
});
