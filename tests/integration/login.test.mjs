import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    assertFailed, assertTransferFailed, byPath, pathOf, redirect, startDevice, startServer, succeeded,
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

    test('is missing from another redirect', async (t) => {
        const {answered, server} = await challenge(t, redirect('/?error=access_denied'));
        assertFailed(answered, {name: OAUTH2, code: 12,
            text: `This url doesn't have query parameters. [${server.url}?error=access_denied]`});
    });
});

describe('The way to the callback', CONCURRENCY, () => {
    // From /0 of the server; `answers` by path.
    async function follow(t, answers, {uri = CALLBACK} = {}) {
        const server = await startServer(t, byPath(answers), {tls: GOOD});
        const {probe, cookies} = startDevice(t);
        const answered = await probe.redirects({
            url: `https://auth.localhost/?redirect_uri=${encodeURIComponent(uri)}&state=s`, cookies,
            reply: {redirect_to: `${server.url}0`},
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

    test('leads to a callback with a private scheme', async (t) => {
        const {answered} = await follow(t, chain(2, 'app://cb?code=1'), {uri: 'app://cb'});
        assert.equal(succeeded(answered), 'app://cb/?code=1');
    });

    // libcurl puts a slash before the query, so the redirect does not hold the callback any more.
    test('misses a callback that libcurl writes in another way', async (t) => {
        const {answered} = await follow(t, chain(1, 'app://cb?x=1&code=1'), {uri: 'app://cb?x=1'});
        assertTransferFailed(answered, 'app://cb/?x=1&code=1', 26, 1);
    });
});
