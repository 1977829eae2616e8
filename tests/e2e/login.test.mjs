// Both login flows, the exchange and the refresh against the test cloud. Runs inside
// scripts/sandbox, with the programs named in ORBA_PROBE and ORBA_STEP_BY_STEP.
import assert from 'node:assert/strict';
import {execFile} from 'node:child_process';
import {createHash, randomBytes} from 'node:crypto';
import {
    existsSync, mkdtempSync, readFileSync, readdirSync, rmSync, statSync, writeFileSync,
} from 'node:fs';
import {join} from 'node:path';
import {after, before, beforeEach, test} from 'node:test';

import {DEFAULT_SETTINGS, startCloud} from '../../cloud/cloud-server.mjs';
import {startProbe} from '../probe/probe.mjs';

const CLIENT_ID = 'fleet-lens';
const REDIRECT_URI = 'https://fleet-lens.localhost/callback';
const NAMESPACE = 'ORBA::OAuth2Client::';

let cloud;
let probe;
let folder; // of this test: profile, token file, cookie files

const path = (name) => join(folder, name);
const readJson = (name) => JSON.parse(readFileSync(path(name)));

function writeProfile(changes = {}) {
    writeFileSync(path('device.json'), JSON.stringify({...cloud.profile, ...changes}));
}

const withoutPkceToken = () => writeProfile({pkce_access_token: undefined});

function makeRequest(changes = {}) {
    const verifier = randomBytes(32).toString('base64url');
    const state = randomBytes(16).toString('base64url');
    const query = new URLSearchParams({
        client_id: CLIENT_ID,
        code_challenge: createHash('sha256').update(verifier).digest('base64url'),
        code_challenge_method: 'S256',
        redirect_uri: REDIRECT_URI,
        response_type: 'code',
        scope: 'openid offline_access fleet.read',
        state,
        ...changes,
    });
    // The library's decoding leaves "+" alone, as RFC 3986 has it.
    const url = `${cloud.authorizationEndpoint}?${query}`.replaceAll('+', '%20');
    return {url, cookies: path('cookies'), verifier, state};
}

function exchange(code, verifier, more = {}) {
    return probe.exchange({
        tokenFile: path('token'), url: cloud.tokenEndpoint, clientId: CLIENT_ID,
        code, verifier, redirectUri: encodeURIComponent(REDIRECT_URI), ...more,
    });
}

const refresh = () => probe.refresh({
    tokenFile: path('token'), url: cloud.tokenEndpoint, clientId: CLIENT_ID,
});

async function signIn() {
    const request = makeRequest();
    const {result, ...failure} = await probe.login(request);
    assert.ok(result, JSON.stringify(failure));
    return {...request, callback: new URL(result), code: new URL(result).searchParams.get('code')};
}

function assertFails({class: name, code, text}, expectedClass, expectedCode, expectedText) {
    assert.deepEqual({name, code}, {name: NAMESPACE + expectedClass, code: expectedCode});
    if (expectedText instanceof RegExp) assert.match(text, expectedText);
    else assert.equal(text, expectedText);
}

const refusedByTokenEndpoint = (answer) => assertFails(answer, 'HttpClientException', 14,
    `Failed to do HTTP Get request to [${cloud.tokenEndpoint}] due to: ` +
    `URL [${cloud.tokenEndpoint}] replied http status code  400: curl return: 0`);

function stepByStep(args = [cloud.authorizationEndpoint, cloud.tokenEndpoint, path('token')]) {
    const env = {...process.env, ORBA_HOST_PROFILE: path('device.json')};
    return new Promise((resolve) => {
        execFile(process.env.ORBA_STEP_BY_STEP, args, {env}, (error, stdout, stderr) => {
            resolve({status: error?.code ?? 0, stdout, stderr});
        });
    });
}

const seen = () => cloud.requests.map(({method, path: name, status}) =>
    `${method} ${name.replace(/(?<=^\/auth\/|^\/hop\/).+/, '*')} ${status}`);

before(async () => {
    for (const name of ['ORBA_PROBE', 'ORBA_STEP_BY_STEP', 'ORBA_SANDBOX_KIND']) {
        assert.ok(process.env[name], `${name} is not set: run this through ctest`);
    }
    cloud = await startCloud();
});

after(() => cloud.close());

beforeEach(() => {
    folder = mkdtempSync('/tmp/e2e-');
    Object.assign(cloud.settings, DEFAULT_SETTINGS);
    cloud.requests.length = 0;
    writeProfile();
    probe = startProbe({ORBA_HOST_PROFILE: path('device.json')});
});

// Not afterEach(): Node.js 18 does not run it for a failed test.
function e2e(name, body) {
    test(name, async () => {
        try {
            await body();
        } finally {
            await probe.end();
            rmSync(folder, {recursive: true});
        }
    });
}

// --- the web flow ---

e2e('web flow: login, exchange, refresh, and refresh again', async () => {
    withoutPkceToken();
    const {callback, state, code, verifier} = await signIn();
    assert.equal(callback.origin + callback.pathname, REDIRECT_URI);
    assert.equal(callback.searchParams.get('state'), state);

    assert.equal((await exchange(code, verifier)).class, undefined);
    const first = readJson('token');
    const refreshed = await refresh();
    assert.equal(refreshed.class, undefined);
    const second = readJson('token');
    assert.equal(refreshed.printed, readFileSync(path('token'), 'utf8'));
    assert.notEqual(second.access_token, first.access_token);
    assert.notEqual(second.refresh_token, first.refresh_token);
    assert.equal((await refresh()).class, undefined);
    assert.deepEqual(seen(), [
        'GET /auth 302', 'POST /device/api/fleet_lens_login 200', 'GET /auth/* 302',
        'POST /token 200', 'POST /token 200', 'POST /token 200',
    ]);
});

e2e('web flow: the device sends its account, key, serial number and the challenge', async () => {
    withoutPkceToken();
    await signIn();
    const [authorization, login] = cloud.requests;
    assert.deepEqual(login.form, {
        id: cloud.account.id,
        auth_key: cloud.account.authKey,
        serial_no: cloud.account.serialNumber,
        challenge: new URL(authorization.location).searchParams.get('login_challenge'),
    });
    assert.equal(authorization.headers['user-agent'], cloud.profile.user_agent);
});

e2e('web flow: a second login with the same cookie file', async () => {
    withoutPkceToken();
    await signIn();
    const {code, verifier} = await signIn();
    assert.equal((await exchange(code, verifier)).class, undefined);
});

e2e('web flow: a consent step of its own', async () => {
    withoutPkceToken();
    cloud.settings.consent = true;
    const {code, verifier} = await signIn();
    assert.equal((await exchange(code, verifier)).class, undefined);
    assert.equal(cloud.requests.filter(({method}) => method === 'GET').length, 4);
});

e2e('cookies: the login continues only with those of the challenge', async () => {
    const {url, cookies} = makeRequest();
    const {result: challenge} = await probe.challenge({url, cookies});
    const {result: reply} = await probe.loginIdp({url, cookies, challenge});
    assert.equal(reply.code, 'success');

    const elsewhere = await probe.redirects({url, cookies: path('other-cookies'), reply});
    assertFails(elsewhere, 'HttpClientException', 14, /replied http status code {2}400: curl return: 0$/);
    const here = await probe.redirects({url, cookies, reply});
    assert.ok(here.result?.startsWith(`${REDIRECT_URI}?code=`), JSON.stringify(here));
});

e2e('redirects: five reach the callback, six are too many', async () => {
    withoutPkceToken();
    cloud.settings.hops = 4;
    await signIn();
    cloud.settings.hops = 5;
    assertFails(await probe.login(makeRequest()), 'OAuth2ClientException', 5,
        "Didn't receive callback url. Last status code = 302");
    assert.equal(cloud.requests.filter(({method}) => method === 'GET').length, 2 * (1 + 5));
});

// --- the grant ---

e2e('grant: a bare code, exchanged without a verifier', async () => {
    const {result: code} = await probe.login(makeRequest());
    assert.match(code, /^[\w-]{43}$/);
    assert.equal((await exchange(code, '')).class, undefined);
    assert.equal((await refresh()).class, undefined);
    assert.deepEqual(seen(), [
        'POST /device/api/fleet_lens_grant 200', 'POST /token 200', 'POST /token 200',
    ]);
});

e2e('grant: the account service gets the parameters of the authorization URL', async () => {
    const {url, cookies, state} = makeRequest();
    await probe.login({url, cookies});
    assert.deepEqual(cloud.requests[0].form, {
        client_id: CLIENT_ID, scope: 'openid offline_access fleet.read',
        redirect_uri: REDIRECT_URI, state,
    });
});

e2e('grant: a code bound to no challenge is refused with a verifier', async () => {
    const {url, cookies, verifier} = makeRequest();
    const {result: code} = await probe.login({url, cookies});
    refusedByTokenEndpoint(await exchange(code, verifier));
});

e2e('grant: a code bound to a challenge needs its verifier', async () => {
    const {url, cookies, verifier} = makeRequest();
    cloud.settings.grantChallenge = new URL(url).searchParams.get('code_challenge');
    const first = await probe.login({url, cookies});
    refusedByTokenEndpoint(await exchange(first.result, ''));
    const second = await probe.login({url, cookies});
    assert.equal((await exchange(second.result, verifier)).class, undefined);
});

e2e('grant: a refused access token does not fall back to the web flow', async () => {
    writeProfile({pkce_access_token: 'stale'});
    const answer = await probe.login(makeRequest());
    assert.equal(answer.class, 'orbatovra::TovraException');
    assert.deepEqual(seen(), ['POST /device/api/fleet_lens_grant 401']);
});

// --- refused ---

e2e('refused: a wrong key ends with code 22 and without the account', async () => {
    writeProfile({
        account: {...cloud.profile.account, auth_key: 'wrong'}, pkce_access_token: undefined,
    });
    assertFails(await probe.login(makeRequest()), 'OAuth2ClientException', 22,
        'Failed to Login IDP due to: Logged out Tovra due to authentication failure.');
    const {account, ...rest} = JSON.parse(JSON.stringify({...cloud.profile, pkce_access_token: undefined}));
    assert.deepEqual(readJson('device.json'), rest);
    assertFails(await probe.login(makeRequest()), 'OAuth2ClientException', 19,
        'Failed to Login IDP due to: Failed to get Tovra account conf.');
});

e2e('refused: a challenge that is not known is no "badauth" and removes nothing', async () => {
    const {url, cookies} = makeRequest();
    const {result: reply} = await probe.loginIdp({url, cookies, challenge: 'unknown'});
    assert.equal(reply.code, 'badchallenge');
    assert.ok(readJson('device.json').account);
    const answer = await probe.redirects({url, cookies, reply});
    assertFails(answer, 'HttpClientException', 12,
        'Failed to do HTTP Get request to [] due to: Got empty URL.');
});

e2e('refused: a wrong verifier, another redirect URI, an expired code; the token file stays', async () => {
    withoutPkceToken();
    writeFileSync(path('token'), 'old');
    const other = randomBytes(32).toString('base64url');
    refusedByTokenEndpoint(await exchange((await signIn()).code, other));
    const {code, verifier} = await signIn();
    refusedByTokenEndpoint(await exchange(code, verifier, {redirectUri: 'https://elsewhere.test'}));
    cloud.settings.codeTtl = 0;
    const late = await signIn();
    refusedByTokenEndpoint(await exchange(late.code, late.verifier));
    assert.equal(readFileSync(path('token'), 'utf8'), 'old');
});

e2e('refused: a code used twice, which takes the tokens of its first use along', async () => {
    withoutPkceToken();
    const {code, verifier} = await signIn();
    await exchange(code, verifier);
    refusedByTokenEndpoint(await exchange(code, verifier, {tokenFile: path('second')}));
    assert.equal(existsSync(path('second')), false);
    refusedByTokenEndpoint(await refresh());
});

e2e('refused: a rotated refresh token; file and standard output stay', async () => {
    withoutPkceToken();
    const {code, verifier} = await signIn();
    await exchange(code, verifier);
    const rotated = readFileSync(path('token'), 'utf8');
    await refresh();
    writeFileSync(path('token'), rotated);
    const answer = await refresh();
    refusedByTokenEndpoint(answer);
    assert.equal(answer.printed, '');
    assert.equal(readFileSync(path('token'), 'utf8'), rotated);
});

e2e('no challenge: a callback with an error is code 12', async () => {
    withoutPkceToken();
    const answer = await probe.login(makeRequest({prompt: 'none'}));
    assertFails(answer, 'OAuth2Exception', 12,
        /^This url doesn't have query parameters\. \[https:.*error=login_required.*\]$/);
});

// --- step-by-step ---

const TOKEN_REPLY = /\n\{\n(\t".+\n)+\}\n/; // the refresh prints it

for (const flow of ['web', 'grant']) {
    e2e(`step-by-step: signs in by the ${flow} flow`, async () => {
        if (flow === 'web') withoutPkceToken();
        const {status, stdout, stderr} = await stepByStep();
        assert.deepEqual({status, stderr}, {status: 0, stderr: ''});
        const {result: fingerprint} = await probe.fingerprint();
        assert.match(stdout, TOKEN_REPLY);
        assert.deepEqual(stdout.replace(TOKEN_REPLY, '\n').split('\n'), [
            flow === 'web' ? 'the web login led to the callback' : 'the account service granted a code',
            'exchanged the code for tokens', `refreshed the tokens of device ${fingerprint}`, '',
        ]);
        assert.deepEqual(readJson('token'), JSON.parse(stdout.match(TOKEN_REPLY)[0]));
        assert.equal(statSync(path('token')).mode & 0o777, 0o600);
        assert.deepEqual(readdirSync(folder).sort(), ['device.json', 'token']);
    });
}

e2e('step-by-step: a failure is one line with code and text', async () => {
    withoutPkceToken();
    cloud.settings.refuseAccount = true;
    assert.deepEqual(await stepByStep(), {
        status: 1, stdout: '', stderr: 'step-by-step: code 22: Failed to Login IDP due to: ' +
            'Logged out Tovra due to authentication failure.\n',
    });
});

e2e('step-by-step: wrong arguments are refused before any request', async () => {
    const usage = 'usage: step-by-step AUTHORIZATION-ENDPOINT TOKEN-ENDPOINT TOKEN-FILE\n';
    const {authorizationEndpoint: authorization, tokenEndpoint: token} = cloud;
    for (const wrong of [[], [authorization], [authorization, token, path('token'), 'more'],
        [authorization.replace('s:', ':'), token, path('token')],
        [authorization, token.replace('s:', ':'), path('token')], ['--nonsense']]) {
        assert.deepEqual(await stepByStep(wrong),
            {status: 2, stdout: '', stderr: `${usage}Both endpoints are https URLs.\n`});
    }
    for (const [option, stdout] of [['-h', usage], ['--help', usage], ['--version', 'step-by-step 1.0.0\n']]) {
        assert.deepEqual(await stepByStep([option]), {status: 0, stdout, stderr: ''});
    }
    assert.deepEqual(seen(), []);
});
