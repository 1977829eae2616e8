import assert from 'node:assert/strict';
import {writeFileSync} from 'node:fs';
import {after, before, beforeEach, describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    assertFailed, byPath, drop, json, redirect, reply, startDevice, startServer, statusFailure, succeeded,
    transferFailure, wrapped,
} from './lab.mjs';
import {openLog} from './log.mjs';

const DEBUG = 7;
const WARNING = 4;
const USER = 1; // the facility of a program that names none
const HTTP = 'orbahttpclient';
const LOGIN = 'orbaoauth2';

let log;
before(async () => (log = await openLog()));
after(() => log.close());
beforeEach(() => log.take());

// The lines that the device has logged: each is a source, its text and, if not DEBUG, its priority.
async function assertLogged(...expected) {
    const messages = await log.take();
    const seen = messages.map(({priority, facility, program, text}) => {
        assert.equal(facility, USER);
        assert.match(program, /^probe/);
        const [, source, line, rest] = text.match(/^(\w+):(\d+) ([^]*)$/) ?? [];
        assert.ok(Number(line) > 0, `no source and line: ${text}`);
        return priority === DEBUG ? [source, rest] : [source, rest, priority];
    });
    assert.deepEqual(seen, expected);
}

function assertLoggedFailure(url, cause, ...earlier) {
    return assertLogged(...earlier, [HTTP, cause], [HTTP, wrapped(url, cause)]);
}

const FORM_LINES = [
    [HTTP, 'add header Content-Type: application/x-www-form-urlencoded'],
    [HTTP, 'add header charset: utf-8'],
    [HTTP, 'set curl custom http header Content-Type: application/x-www-form-urlencoded'],
    [HTTP, 'set curl custom http header charset: utf-8'],
];

describe('A request logs', () => {
    test('its headers when they are set and when they are used', async (t) => {
        const server = await startServer(t, json({}));
        succeeded(await startDevice(t).getJson(server.url, {headers: {b: '1', a: '2 %s %n'}}));
        await assertLogged([HTTP, 'add header a: 2 %s %n'], [HTTP, 'add header b: 1'],
            [HTTP, 'set curl custom http header a: 2 %s %n'],
            [HTTP, 'set curl custom http header b: 1']);
    });

    test('a failed transfer once, and then as the request wraps it', async (t) => {
        const server = await startServer(t, drop);
        const device = startDevice(t);
        await device.get(server.url);
        await assertLoggedFailure(server.url, transferFailure(26, 52));
        await device.post(server.url, '');
        await assertLoggedFailure(server.url, transferFailure(26, 52), ...FORM_LINES);
    });

    test('percent signs as they are, and a URL of 64 KiB whole', async (t) => {
        const server = await startServer(t, reply(404));
        const url = `${server.url}a%20b?c=%s%n${'x'.repeat(64 * 1024)}`;
        await startDevice(t).get(url);
        await assertLoggedFailure(url, statusFailure(url, 404));
    });
});

describe('The login logs', () => {
    test('each URL on the way to the callback', async (t) => {
        const server = await startServer(t,
            byPath({'/1': redirect('/2'), '/2': redirect('app://callback/?code=1')}));
        const {probe, cookies} = startDevice(t);
        const url = `${server.url}authorize?redirect_uri=app%3A%2F%2Fcallback`;
        const answered = await probe.redirects({url, cookies, reply: {redirect_to: `${server.url}1`}});
        assert.equal(succeeded(answered), 'app://callback/?code=1');
        await assertLogged([LOGIN, `GET url: ${server.url}1`], [LOGIN, `GET url: ${server.url}2`]);
    });

    test('a warning when there is no access token, with the reason', async (t) => {
        const {probe, cookies} = startDevice(t);
        assertFailed(await probe.login({url: '', cookies}), {code: 12, text: wrapped('', 'Got empty URL.')});
        const [{priority, text}, ...others] = await log.take();
        assert.deepEqual(others.map((line) => line.priority), [DEBUG, DEBUG]);
        assert.equal(priority, WARNING);
        const warned = 'Failed to get Tovra access token. please re-login Orbalon Account to generate pkce access ' +
            'token, otherwise Fleet Lens will use non-pkce flow to get grant code, reason: no PKCE access token: ';
        assert.ok(text.replace(/^orbaoauth2:\d+ /, '').startsWith(warned), text);
        assert.match(text, /pkce_access_token/);
    });
});

describe('The token operations log', () => {
    const GRANT = {clientId: 'nas', code: 'c', verifier: 'v', redirectUri: 'app://callback'};

    test('the two headers, and never a token', async (t) => {
        const tokens = json({access_token: 'a1', refresh_token: 'r2'});
        const server = await startServer(t, tokens, {tls: GOOD});
        const device = startDevice(t);
        const tokenFile = device.path('tokens');
        writeFileSync(tokenFile, '{"refresh_token": "r1"}');
        const request = {tokenFile, url: server.url, ...GRANT};
        succeeded(await device.probe.refresh(request));
        await assertLogged(...FORM_LINES);
        succeeded(await device.probe.exchange(request));
        await assertLogged(...FORM_LINES);
    });
});
