import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    assertFailed, assertRequestFailed, assertTransferFailed, byPath, drop, json, pathOf, redirect,
    reply, startDevice, startServer, statusFailure, succeeded,
} from './lab.mjs';

const CONCURRENCY = {concurrency: 8};
const CALLBACK = 'https://nas.localhost/callback';
const OAUTH2 = 'ORBA::OAuth2Client::OAuth2Exception';
const BASE = 'ORBA::OAuth2Client::OAuth2ClientException';

describe('The login challenge', CONCURRENCY, () => {
    async function challenge(t, script) {
        const server = await startServer(t, script, {tls: GOOD});
        const {probe, cookies} = startDevice(t);
        const url = `${server.url}authorize?client_id=nas`;
        return {server, url, answered: await probe.challenge({url, cookies})};
    }

    for (const [what, location, expected] of [
        ['is taken from the redirect', '/login?login_challenge=c1', 'c1'],
        ['ends at the next parameter', '/login?a=1&login_challenge=c1&b=2', 'c1'],
        ['is decoded', '/login?login_challenge=a%2Fb%20c+d', 'a/b c+d'],
        ['may be empty', '/login?login_challenge=&b=2', ''],
        ['may come from another host', 'https://other.localhost/?login_challenge=c1', 'c1'],
    ]) {
        test(what, async (t) => {
            const {answered, server} = await challenge(t, redirect(location));
            assert.equal(succeeded(answered), expected);
            assert.equal(server.arrivals.length, 1);
        });
    }

    for (const status of [300, 301, 303, 307, 308]) {
        test(`is not taken from a ${status}`, async (t) => {
            const {answered, server} = await challenge(t, redirect('/?login_challenge=c1', status));
            assertFailed(answered, {name: BASE, code: 4,
                text: `Server's auth endpoint returned [${status}]. ` +
                    `redirect url = [${server.url}?login_challenge=c1]. `});
        });
    }

    for (const status of [200, 204]) {
        test(`does not come with a ${status}`, async (t) => {
            const {answered} = await challenge(t, reply(status));
            assertFailed(answered, {name: BASE, code: 4,
                text: `Server's auth endpoint returned [${status}]. `});
        });
    }

    test('is missing from another redirect', async (t) => {
        const {answered, server} = await challenge(t, redirect('/?error=access_denied'));
        assertFailed(answered, {name: OAUTH2, code: 12,
            text: `This url doesn't have query parameters. [${server.url}?error=access_denied]`});
    });

    test('is not there when the server refuses', async (t) => {
        const {answered, url} = await challenge(t, reply(400));
        assertRequestFailed(answered, url, 14, statusFailure(url, 400));
    });

    test('is not there when the server fails', async (t) => {
        const {answered, url} = await challenge(t, drop);
        assertTransferFailed(answered, url, 26, 52);
    });
});

describe('The way to the callback', CONCURRENCY, () => {
    // From /0 of the server; `answers` by path.
    async function follow(t, answers, {uri = CALLBACK, from = '0'} = {}) {
        const server = await startServer(t, byPath(answers), {tls: GOOD});
        const {probe, cookies} = startDevice(t);
        const answered = await probe.redirects({
            url: `https://auth.localhost/?redirect_uri=${encodeURIComponent(uri)}&state=s`, cookies,
            reply: from === null ? {} : {redirect_to: server.url + from},
        });
        return {server, answered};
    }

    // Redirects from /0 to /1 and so on, of which the last one leads to `end`.
    function chain(length, end) {
        return Object.fromEntries(Array.from({length}, (_, n) =>
            [`/${n}`, redirect(n === length - 1 ? end : `/${n + 1}`)]));
    }

    for (let length = 1; length <= 5; length += 1) {
        test(`may have ${length} redirects`, async (t) => {
            const end = `${CALLBACK}?code=c%2F1&state=s`;
            const {answered, server} = await follow(t, chain(length, end));
            assert.equal(succeeded(answered), end);
            const paths = ['/0', '/1', '/2', '/3', '/4'];
            assert.deepEqual(server.requests.map(pathOf), paths.slice(0, length));
        });
    }

    test('ends at the fifth redirect', async (t) => {
        const answers = {...chain(6, CALLBACK), '/4': redirect('/5', 307)};
        const {answered, server} = await follow(t, answers);
        assertFailed(answered, {name: BASE, code: 5,
            text: "Didn't receive callback url. Last status code = 307"});
        assert.equal(server.arrivals.length, 5);
    });

    for (const status of [200, 204]) {
        test(`ends with a ${status}`, async (t) => {
            const {answered} = await follow(t, {...chain(2, '/2'), '/2': reply(status)});
            assertFailed(answered, {name: BASE, code: 5,
                text: `Didn't receive callback url. Last status code = ${status}`});
        });
    }

    test('ends with a refusal, which names the URL that refused', async (t) => {
        const {answered, server} = await follow(t, chain(2, '/refused'));
        const url = `${server.url}refused`;
        assertRequestFailed(answered, url, 14, statusFailure(url, 404));
    });

    test('ends with a server that is not there', async (t) => {
        const {answered} = await follow(t, chain(1, 'http://127.0.0.1:1/gone'));
        assertTransferFailed(answered, 'http://127.0.0.1:1/gone', 26, 7);
    });

    test('takes every status of a redirect', async (t) => {
        const {answered} = await follow(t, {
            '/0': redirect('/1', 301), '/1': redirect('/2', 303), '/2': redirect('/3', 308),
            '/3': redirect('/4', 399), '/4': redirect(CALLBACK, 300),
        });
        assert.equal(succeeded(answered), CALLBACK);
    });

    test('takes the callback for reached wherever it is in a redirect', async (t) => {
        const {answered, server} = await follow(t, chain(1, `/next?to=${CALLBACK}&a=1`));
        assert.equal(succeeded(answered), `${server.url}next?to=${CALLBACK}&a=1`);
    });

    test('ends at the first redirect when the callback is empty', async (t) => {
        const {answered, server} = await follow(t, chain(3, CALLBACK), {uri: ''});
        assert.equal(succeeded(answered), `${server.url}1`);
    });

    test('leads to a callback with a scheme of its own', async (t) => {
        const {answered} = await follow(t, chain(2, 'app://cb?code=1'), {uri: 'app://cb'});
        assert.equal(succeeded(answered), 'app://cb/?code=1');
    });

    // libcurl puts a slash before the query, so the redirect does not hold the callback any more.
    test('misses a callback that libcurl writes in another way', async (t) => {
        const {answered} = await follow(t, chain(1, 'app://cb?x=1&code=1'), {uri: 'app://cb?x=1'});
        assertTransferFailed(answered, 'app://cb/?x=1&code=1', 26, 1);
    });

    test('does not begin without redirect_uri in the authorization URL', async (t) => {
        const server = await startServer(t, redirect(CALLBACK), {tls: GOOD});
        const {probe, cookies} = startDevice(t);
        const url = 'https://auth.localhost/?state=s';
        const answered = await probe.redirects({url, cookies, reply: {redirect_to: server.url}});
        assertFailed(answered, {name: OAUTH2, code: 12,
            text: `This url doesn't have query parameters. [${url}]`});
        assert.equal(server.arrivals.length, 0);
    });

    test('does not begin without redirect_to in the reply', async (t) => {
        const {answered, server} = await follow(t, {}, {from: null});
        assertRequestFailed(answered, '', 12, 'Got empty URL.');
        assert.equal(server.arrivals.length, 0);
    });
});

describe('The web login', CONCURRENCY, () => {
    // The authorization server and the account service in one; who comes back without the cookie of
    // the first visit is refused.
    function cloud(loginReply) {
        return async (connection) => {
            const request = await connection.request();
            const path = pathOf(request);
            if (path.startsWith('/authorize?')) {
                const cookie = 'Set-Cookie: session=1; Path=/; Secure; HttpOnly';
                const location = 'Location: /login?login_challenge=c1';
                connection.socket.end(reply(302, {headers: [cookie, location]}));
            } else if (path === '/device/api/fleet_lens_login') {
                connection.socket.end(loginReply());
            } else if (/\r\ncookie: session=1\r\n/i.test(request)) {
                connection.socket.end(redirect(`${CALLBACK}?code=1`));
            } else {
                connection.socket.end(reply(400));
            }
        };
    }

    async function login(t, loginReply) {
        const server = await startServer(t, cloud(() => loginReply(server)), {tls: GOOD});
        const device = startDevice(t, {profile: {
            account: {id: 'account-1', auth_key: 'key-1'},
            account_service: `127.0.0.1:${server.port}`,
        }});
        const url = `${server.url}authorize?redirect_uri=${encodeURIComponent(CALLBACK)}`;
        return {server, answered: await device.probe.login({url, cookies: device.cookies})};
    }

    test('leads from the challenge over the account service to the callback', async (t) => {
        const {answered, server} = await login(t, ({url}) =>
            json({code: 'success', redirect_to: `${url}continue`}));
        assert.equal(succeeded(answered), `${CALLBACK}?code=1`);
        assert.deepEqual(server.requests.map((request) => pathOf(request).split('?')[0]),
            ['/authorize', '/device/api/fleet_lens_login', '/continue']);
        const form = new URLSearchParams(server.requests[1].split('\r\n\r\n')[1]);
        assert.deepEqual(Object.fromEntries(form), {
            id: 'account-1', auth_key: 'key-1', serial_no: 'ORBA-0123456789', challenge: 'c1',
        });
    });

    test('ends when the account service knows the account no more', async (t) => {
        const {answered, server} = await login(t, () => json({code: 'badauth'}));
        assertFailed(answered, {name: BASE, code: 22, text: 'Failed to Login IDP due to: ' +
            'Logged out Tovra due to authentication failure.'});
        assert.equal(server.requests.length, 2);
    });
});
