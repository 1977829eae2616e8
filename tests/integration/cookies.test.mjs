import assert from 'node:assert/strict';
import {
    chmodSync, lstatSync, readFileSync, statSync, symlinkSync, writeFileSync,
} from 'node:fs';
import {describe, test} from 'node:test';

import {
    assertRequestFailed, libcurlFrom, reply, startDevice, startServer, succeeded,
} from './lab.mjs';

const CONCURRENCY = {concurrency: 8};
const PLAIN = reply(204);

function setting(...cookies) {
    return reply(204, {headers: cookies.map((cookie) => `Set-Cookie: ${cookie}`)});
}

// The Cookie headers of a request.
function cookiesIn(request) {
    return [...request.matchAll(/\r\ncookie: (.*)\r\n/gi)].map(([, value]) => value);
}

// What each request after the first sends back, when the replies before it set these cookies.
async function sentBack(t, replies) {
    const server = await startServer(t, [...replies, PLAIN]);
    const device = startDevice(t);
    for (let n = 0; n <= replies.length; n += 1) {
        succeeded(await device.get(server.url));
    }
    return server.requests.slice(1).flatMap((request) => cookiesIn(request)[0] ?? '');
}

// The lines of a cookie file that hold cookies, each as its fields.
function jar(path) {
    return readFileSync(path, 'latin1').split('\n')
        .filter((line) => line.includes('\t'))
        .map((line) => line.split('\t'));
}

describe('A cookie', CONCURRENCY, () => {
    test('is sent back by the next request, that of a fresh object', async (t) =>
        assert.deepEqual(await sentBack(t, [setting('a=1')]), ['a=1']));

    test('is sent back by another process', async (t) => {
        const server = await startServer(t, [setting('a=1'), PLAIN]);
        const first = startDevice(t);
        succeeded(await first.get(server.url));
        succeeded(await startDevice(t).get(server.url, {cookies: first.cookies}));
        assert.deepEqual(cookiesIn(server.requests[1]), ['a=1']);
    });

    test('is not sent by an object with another cookie file', async (t) => {
        const server = await startServer(t, [setting('a=1'), PLAIN]);
        const device = startDevice(t);
        succeeded(await device.get(server.url));
        succeeded(await device.get(server.url, {cookies: device.path('others')}));
        assert.deepEqual(cookiesIn(server.requests[1]), []);
    });

    test('that is removed is not sent any more', async (t) =>
        assert.deepEqual(await sentBack(t, [setting('a=1', 'b=1'), setting('a=; Max-Age=0')]),
            ['a=1; b=1', 'b=1']));

    // libcurl 7.88 reads the file once more before it writes it, and the cookie comes back.
    test('that is removed before another one is set is sent by 7.88 only', async (t) => {
        const cookies = [setting('a=1'), setting('a=; Max-Age=0', 'b=1')];
        assert.deepEqual(await sentBack(t, cookies),
            ['a=1', libcurlFrom(8, 14) ? 'b=1' : 'b=1; a=1']);
    });

    test('of a failure is kept', async (t) => {
        const headers = ['Set-Cookie: a=1'];
        const server = await startServer(t, [reply(403, {headers}), PLAIN]);
        const device = startDevice(t);
        assert.equal((await device.get(server.url)).code, 14);
        succeeded(await device.get(server.url));
        assert.deepEqual(cookiesIn(server.requests[1]), ['a=1']);
    });

    test('of a redirect is kept', async (t) => assert.deepEqual(await sentBack(t,
        [reply(302, {headers: ['Set-Cookie: a=1', 'Location: /next']})]), ['a=1']));
});

describe('A cookie file', CONCURRENCY, () => {
    test('is made when it is missing, and holds no cookies', async (t) => {
        const server = await startServer(t, PLAIN);
        const device = startDevice(t);
        succeeded(await device.get(server.url));
        assert.match(readFileSync(device.cookies, 'utf8'), /^# Netscape HTTP Cookie File\n/);
        assert.deepEqual(jar(device.cookies), []);
        assert.equal(statSync(device.cookies).mode & 0o777, 0o600);
    });

    test('is /tmp/dontcarecookies for an object that names none', async (t) => {
        const server = await startServer(t, [setting('a=1'), PLAIN]);
        const {probe} = startDevice(t);
        for (const client of ['one', 'two']) {
            succeeded(await probe.get({client, url: server.url, follow: false}));
        }
        assert.deepEqual(cookiesIn(server.requests[1]), ['a=1']);
        assert.equal(jar('/tmp/dontcarecookies').at(-1)[5], 'a');
    });

    test('in a folder that does not exist is failure 24, before any request', async (t) => {
        const server = await startServer(t, PLAIN);
        const device = startDevice(t);
        const cookies = device.path('missing/cookies');
        const cause = `Invalid cookie file path: ${cookies}`;
        for (const answered of [
            await device.get(server.url, {cookies}), await device.getJson(server.url, {cookies}),
            await device.post(server.url, '', {cookies}),
        ]) {
            assertRequestFailed(answered, server.url, 24, cause);
        }
        assert.equal(server.arrivals.length, 0);
    });

    // The name of a process can be opened for writing, but nothing can be made beside it.
    test('that cannot be rewritten is ignored', async (t) => {
        const server = await startServer(t, setting('a=1'));
        const device = startDevice(t);
        for (const _ of [1, 2]) {
            succeeded(await device.get(server.url, {cookies: '/proc/self/comm'}));
        }
        assert.deepEqual(server.requests.map(cookiesIn), [[], []]);
    });

    // libcurl 8.14 reads no further than to a line that is too long, 7.88 passes over it.
    test('that holds rubbish is replaced by what is a cookie in it', async (t) => {
        const server = await startServer(t, setting('b=2'));
        const device = startDevice(t);
        writeFileSync(device.cookies, Buffer.concat([
            Buffer.from([1, 0xff, 0x80, 0, 0x0a]), Buffer.from('half a line\tof\tfields\n'),
            Buffer.from('127.0.0.1\tFALSE\t/\tFALSE\t0\ta\t1\n'), Buffer.from('x'.repeat(100000)),
            Buffer.from('\n127.0.0.1\tFALSE\t/\tFALSE\t0\tlate\t1\n'),
            Buffer.from('\n127.0.0.1\tFALSE\t/\tFALSE\tsoon\tno date\t1\n{"json": 1}'),
        ]));
        succeeded(await device.get(server.url));
        const names = libcurlFrom(8, 14) ? ['a'] : ['late', 'a'];
        assert.deepEqual(server.requests.map(cookiesIn), [[names.map((n) => `${n}=1`).join('; ')]]);
        assert.deepEqual(jar(device.cookies).map((fields) => fields[5]), ['b', ...names]);
    });

    test('keeps its mode', async (t) => {
        const server = await startServer(t, setting('a=1'));
        const device = startDevice(t);
        writeFileSync(device.cookies, '');
        chmodSync(device.cookies, 0o640);
        succeeded(await device.get(server.url));
        assert.equal(statSync(device.cookies).mode & 0o777, 0o640);
        assert.equal(jar(device.cookies).length, 1);
    });

    test('that is a symbolic link is replaced by a file', async (t) => {
        const server = await startServer(t, setting('a=1'));
        const device = startDevice(t);
        symlinkSync(device.path('target'), device.cookies);
        succeeded(await device.get(server.url));
        assert.ok(lstatSync(device.cookies).isFile());
        assert.equal(readFileSync(device.path('target'), 'utf8'), '');
    });
});
