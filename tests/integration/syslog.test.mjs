import assert from 'node:assert/strict';
import {writeFileSync} from 'node:fs';
import {after, before, beforeEach, describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    assertFailed, byPath, drop, json, redirect, reply, startDevice, startServer, statusFailure,
    succeeded, transferFailure, wrapped,
} from './lab.mjs';
import {openLog} from './log.mjs';

const DEBUG = 7;
const WARNING = 4;
const USER = 1; // the facility of a program that names none
const HTTP = 'orbahttpclient';
const LOGIN = 'orbaoauth2';
const UTILS = 'utils';

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

    test('the two headers of a POST', async (t) => {
        const server = await startServer(t, json({}));
        succeeded(await startDevice(t).post(server.url, 'secret=1'));
        await assertLogged(...FORM_LINES);
    });

    test('a failed transfer once, and then as the request wraps it', async (t) => {
        const server = await startServer(t, drop);
        const device = startDevice(t);
        await device.get(server.url);
        await assertLoggedFailure(server.url, transferFailure(26, 52));
        await device.post(server.url, '');
        await assertLoggedFailure(server.url, transferFailure(26, 52), ...FORM_LINES);
    });

    test('a missing user agent, with the platform\'s error number', async (t) => {
        const device = startDevice(t, {profile: {user_agent: undefined}});
        await device.get('http://127.0.0.1:1/');
        const [number, ...others] = await log.take();
        assert.match(number.text,
            /^orbahttpclient:\d+ Failed to get Orbalon usergent: code=[1-9]\d*$/);
        assert.equal(number.priority, DEBUG);
        assert.deepEqual(others.map(({text}) => text.replace(/:\d+/, '')), [
            `${HTTP} Failed to get Orbalon usergent`,
            `${HTTP} ${wrapped('http://127.0.0.1:1/', 'Failed to get Orbalon usergent')}`,
        ]);
    });

    test('percent signs as they are', async (t) => {
        const server = await startServer(t, reply(404));
        const url = `${server.url}a%20b?c=%s%n`;
        await startDevice(t).get(url);
        await assertLoggedFailure(url, statusFailure(url, 404));
    });

    test('a URL of 64 KiB whole', async (t) => {
        const server = await startServer(t, reply(404));
        const url = `${server.url}${'x'.repeat(64 * 1024)}`;
        await startDevice(t).get(url);
        await assertLoggedFailure(url, statusFailure(url, 404));
    });
});

describe('The login logs', () => {
    test('a redirect without a challenge', async (t) => {
        const server = await startServer(t, redirect('/login'));
        const {probe, cookies} = startDevice(t);
        const answered = await probe.challenge({url: server.url, cookies});
        const text = `This url doesn't have query parameters. [${server.url}login]`;
        assertFailed(answered, {name: 'ORBA::OAuth2Client::OAuth2Exception', code: 12, text});
        await assertLogged([UTILS, text]);
    });

    test('each URL on the way to the callback', async (t) => {
        const server = await startServer(t,
            byPath({'/1': redirect('/2'), '/2': redirect('app://callback/?code=1')}));
        const {probe, cookies} = startDevice(t);
        const url = `${server.url}authorize?redirect_uri=app%3A%2F%2Fcallback`;
        const answered = await probe.redirects({url, cookies, reply: {redirect_to: `${server.url}1`}});
        assert.equal(succeeded(answered), 'app://callback/?code=1');
        await assertLogged([LOGIN, `GET url: ${server.url}1`], [LOGIN, `GET url: ${server.url}2`]);
    });

    // Logs in with an authorization URL at which the login fails as soon as it needs a server, and
    // gives the one line that was logged before.
    async function warning(t, options) {
        const {probe, cookies} = startDevice(t, options);
        assertFailed(await probe.login({url: '', cookies}),
            {code: 12, text: wrapped('', 'Got empty URL.')});
        const [first, ...others] = await log.take();
        assert.deepEqual(others.map(({priority}) => priority), [DEBUG, DEBUG]);
        return first;
    }

    test('a warning when there is no access token, with the reason', async (t) => {
        const {priority, text} = await warning(t);
        assert.equal(priority, WARNING);
        const line = text.replace(/^orbaoauth2:\d+ /, '');
        const warned = 'Failed to get Tovra access token. please re-login Orbalon Account to ' +
            'generate pkce access token, otherwise Fleet Lens will use non-pkce flow to get ' +
            'grant code, reason: ';
        assert.equal(line.slice(0, warned.length), warned);
        assert.match(line.slice(warned.length), /^no PKCE access token: .*pkce_access_token/);
    });

    test('a short warning when the platform throws something else', async (t) => {
        const program = process.env.ORBA_PROBE_FOREIGN_EXCEPTION;
        assert.ok(program, 'ORBA_PROBE_FOREIGN_EXCEPTION does not name a program');
        const {priority, text} = await warning(t, {program});
        assert.equal(priority, WARNING);
        assert.match(text, /^orbaoauth2:\d+ Failed to get Tovra access token\.$/);
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
