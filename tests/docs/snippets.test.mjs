// The programs that the documents quote keep what the documents promise. Runs inside
// scripts/sandbox, with the programs named in ORBA_FLEET_LENS and ORBA_KEEP_TOKENS.
import assert from 'node:assert/strict';
import {execFile} from 'node:child_process';
import {once} from 'node:events';
import {
    existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, statSync, writeFileSync,
} from 'node:fs';
import {createServer} from 'node:https';
import {join} from 'node:path';
import {test} from 'node:test';

import {startCloud} from '../../cloud/cloud-server.mjs';

for (const name of ['ORBA_FLEET_LENS', 'ORBA_KEEP_TOKENS', 'ORBA_SANDBOX_KIND']) {
    if (!process.env[name]) throw new Error(`${name} is not set: run this through ctest`);
}

const profile = {serial_number: 'ORBA-0123456789', user_agent: 'OrbaNAS/7.2 (docs)'};

function withFolder(name, body) {
    test(name, async () => {
        const folder = mkdtempSync('/tmp/snippets-');
        const path = (file) => join(folder, file);
        writeFileSync(path('device.json'), JSON.stringify(profile));
        try {
            await body(path);
        } finally {
            rmSync(folder, {recursive: true});
        }
    });
}

function run(path, program, ...args) {
    const env = {...process.env, ORBA_HOST_PROFILE: path('device.json')};
    return new Promise((resolve) => {
        execFile(process.env[program], args, {env}, (error, stdout, stderr) =>
            resolve({status: error?.code ?? 0, stdout, stderr}));
    });
}

// A token endpoint that gives the same answer to everyone; resolves to its URL and its requests.
async function tokenEndpoint(status, reply) {
    const server = createServer({
        cert: readFileSync(process.env.ORBA_TLS_CERT), key: readFileSync(process.env.ORBA_TLS_KEY),
    });
    const bodies = [];
    server.on('request', async (request, response) => {
        let body = '';
        for await (const piece of request) body += piece;
        bodies.push(body);
        response.writeHead(status, {'content-type': 'application/json'}).end(JSON.stringify(reply));
    });
    await once(server.listen(0, '127.0.0.1'), 'listening');
    return {url: `https://auth.localhost:${server.address().port}/token`, bodies, close: () => server.close()};
}

const keepTokens = (path, url) => run(path, 'ORBA_KEEP_TOKENS', path('tokens'), url, 'fleet-lens');
const tokens = (path) => JSON.parse(readFileSync(path('tokens'), 'utf8'));

withFolder('keep_tokens: a refresh token that the reply does not carry stays', async (path) => {
    writeFileSync(path('tokens'), '{"access_token": "a1", "refresh_token": "r1"}', {mode: 0o600});
    const endpoint = await tokenEndpoint(200, {access_token: 'a2'});
    const answer = await keepTokens(path, endpoint.url);
    endpoint.close();
    assert.deepEqual(answer, {status: 0, stdout: '', stderr: ''});
    assert.deepEqual(tokens(path), {access_token: 'a2', refresh_token: 'r1'});
    assert.equal(statSync(path('tokens')).mode & 0o777, 0o600);
    assert.equal(existsSync(path('tokens.new')), false);
});

withFolder('keep_tokens: a file that cannot be written is told before the request', async (path) => {
    const text = '{"access_token": "a1", "refresh_token": "r1"}';
    writeFileSync(path('tokens'), text);
    mkdirSync(path('tokens.new'));
    const endpoint = await tokenEndpoint(200, {access_token: 'a2'});
    const answer = await keepTokens(path, endpoint.url);
    endpoint.close();
    assert.deepEqual(answer, {status: 1, stdout: '', stderr: `cannot write ${path('tokens.new')}\n`});
    assert.deepEqual(endpoint.bodies, []);
    assert.equal(readFileSync(path('tokens'), 'utf8'), text);
});

withFolder('keep_tokens: a refused refresh token leaves the file and says what comes next', async (path) => {
    writeFileSync(path('tokens'), '{"refresh_token": "r1"}');
    const endpoint = await tokenEndpoint(400, {error: 'invalid_grant'});
    const {status, stderr} = await keepTokens(path, endpoint.url);
    endpoint.close();
    assert.equal(status, 1);
    assert.match(stderr, /^14: .*\nsign in again\n$/);
    assert.deepEqual(tokens(path), {refresh_token: 'r1'});
});

withFolder('keep_tokens: a reply without an access token is not taken', async (path) => {
    writeFileSync(path('tokens'), '{"refresh_token": "r1"}');
    const endpoint = await tokenEndpoint(200, {error: 'temporarily_unavailable'});
    const {status, stderr} = await keepTokens(path, endpoint.url);
    endpoint.close();
    assert.deepEqual({status, stderr}, {status: 1, stderr: 'the reply holds no access token\n'});
    assert.deepEqual(tokens(path), {refresh_token: 'r1'});
});

withFolder('keep_tokens: five at once against a server that rotates refresh tokens', async (path) => {
    const cloud = await startCloud();
    try {
        writeFileSync(path('device.json'), JSON.stringify(cloud.profile));
        const signedIn = await run(path, 'ORBA_FLEET_LENS', cloud.authorizationEndpoint,
            cloud.tokenEndpoint, path('tokens'));
        assert.equal(signedIn.status, 0, signedIn.stderr);
        const answers = await Promise.all(
            Array.from({length: 5}, () => keepTokens(path, cloud.tokenEndpoint)));
        assert.deepEqual(answers, Array(5).fill({status: 0, stdout: '', stderr: ''}));
    } finally {
        await cloud.close();
    }
});
