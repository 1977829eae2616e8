import assert from 'node:assert/strict';
import {
    chmodSync, lstatSync, mkdirSync, readFileSync, readdirSync, statSync, symlinkSync,
    writeFileSync,
} from 'node:fs';
import {describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    assertRequestFailed, libcurlFrom, reply, startDevice, startServer, succeeded,
} from './lab.mjs';

const CONCURRENCY = {concurrency: 8};
const PLAIN = reply(204);
const LONG_AGO = 'Thu, 01 Jan 2015 00:00:00 GMT';

function setting(...cookies) {
    return reply(204, {headers: cookies.map((cookie) => `Set-Cookie: ${cookie}`)});
}

// The Cookie headers of a request.
function cookiesIn(request) {
    return [...request.matchAll(/\r\ncookie: (.*)\r\n/gi)].map(([, value]) => value);
}

// What each request after the first sends back, when the replies before it set these cookies.
async function sentBack(t, replies, {name, paths = []} = {}) {
    const server = await startServer(t, [...replies, PLAIN], {name});
    const device = startDevice(t);
    for (let n = 0; n <= replies.length; n += 1) {
        succeeded(await device.get(server.url + (paths[n] ?? '')));
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

    test('is in the file at the end of the request', async (t) => {
        const server = await startServer(t, setting('a=1; Path=/; HttpOnly', 'b=2; Max-Age=900'));
        const device = startDevice(t);
        succeeded(await device.get(`${server.url}folder/page`));
        const [b, a] = jar(device.cookies);
        assert.deepEqual(a, ['#HttpOnly_127.0.0.1', 'FALSE', '/', 'FALSE', '0', 'a', '1']);
        const now = Date.now() / 1000;
        assert.ok(b[4] > now + 800 && b[4] < now + 1000, `expires ${b[4]}`);
        assert.deepEqual([...b.slice(0, 4), ...b.slice(5)],
            ['127.0.0.1', 'FALSE', '/folder/', 'FALSE', 'b', '2']);
    });

    test('is overwritten by one of the same name', async (t) =>
        assert.deepEqual(await sentBack(t, [setting('a=1'), setting('a=2')]), ['a=1', 'a=2']));

    test('that was set twice in one reply has the last value', async (t) =>
        assert.deepEqual(await sentBack(t, [setting('a=1', 'a=2')]), ['a=2']));

    test('that has expired is not sent', async (t) => {
        const cookies = setting('a=1', 'b=1; Max-Age=0', `c=1; Expires=${LONG_AGO}`);
        assert.deepEqual(await sentBack(t, [cookies]), ['a=1']);
    });

    test('that expires between two requests is not sent any more', async (t) => {
        const server = await startServer(t, [setting('a=1', 'b=1; Max-Age=2'), PLAIN]);
        const device = startDevice(t);
        succeeded(await device.get(server.url));
        const [expires] = jar(device.cookies).filter((fields) => fields[5] === 'b')
            .map((fields) => Number(fields[4]));
        const over = (expires + 1) * 1000 + 50;
        await new Promise((resolve) => setTimeout(resolve, over - Date.now()));
        succeeded(await device.get(server.url));
        assert.deepEqual(cookiesIn(server.requests[1]), ['a=1']);
    });

    for (const removal of ['Max-Age=0', `Expires=${LONG_AGO}`]) {
        test(`that is removed with ${removal} is not sent any more`, async (t) =>
            assert.deepEqual(await sentBack(t, [setting('a=1', 'b=1'), setting(`a=; ${removal}`)]),
                ['a=1; b=1', 'b=1']));

        // libcurl 7.88 reads the file once more before it writes it, and the cookie comes back.
        test(`that is removed with ${removal} before another one is set is sent by 7.88 only`,
            async (t) => {
                const cookies = [setting('a=1'), setting(`a=; ${removal}`, 'b=1')];
                assert.deepEqual(await sentBack(t, cookies),
                    ['a=1', libcurlFrom(8, 14) ? 'b=1' : 'b=1; a=1']);
            });
    }

    test('for a path is sent there and below', async (t) => {
        const cookies = setting('a=1; Path=/login', 'b=1; Path=/', 'c=1; Path=/login/deep');
        const paths = ['', 'login', 'login/deep/page', 'loginother', ''];
        assert.deepEqual(await sentBack(t, [cookies, PLAIN, PLAIN, PLAIN], {paths}),
            ['a=1; b=1', 'c=1; a=1; b=1', 'b=1', 'b=1']);
    });

    test('without a path is for the folder of the page', async (t) => {
        const paths = ['login/page', 'login/other', 'page'];
        assert.deepEqual(await sentBack(t, [setting('a=1'), PLAIN], {paths}), ['a=1', '']);
    });

    // 127.0.0.1 and localhost themselves count as safe, without HTTPS, too.
    test('that is Secure is sent over HTTPS only', async (t) => {
        const at = {name: 'auth.localhost'};
        const secure = await startServer(t, setting('a=1; Secure', 'b=1'), {tls: GOOD, ...at});
        const plain = await startServer(t, PLAIN, at);
        const device = startDevice(t);
        for (const {url} of [secure, secure, plain]) succeeded(await device.get(url));
        assert.deepEqual(cookiesIn(secure.requests[1]), ['a=1; b=1']);
        assert.deepEqual(cookiesIn(plain.requests[0]), ['b=1']); // ports do not matter
    });

    test('that is Secure is refused from plain HTTP', async (t) =>
        assert.deepEqual(await sentBack(t, [setting('a=1; Secure', 'b=1')],
            {name: 'auth.localhost'}), ['b=1']));

    test('that is HttpOnly is sent back', async (t) =>
        assert.deepEqual(await sentBack(t, [setting('a=1; HttpOnly')]), ['a=1']));

    test('of a failure is kept', async (t) => {
        const headers = ['Set-Cookie: a=1'];
        const server = await startServer(t, [reply(403, {headers}), PLAIN]);
        const device = startDevice(t);
        assert.equal((await device.get(server.url)).code, 14);
        succeeded(await device.get(server.url));
        assert.deepEqual(cookiesIn(server.requests[1]), ['a=1']);
    });

    test('of a redirect is kept', async (t) => {
        const headers = ['Set-Cookie: a=1', 'Location: /next'];
        const server = await startServer(t, [reply(302, {headers}), PLAIN]);
        const device = startDevice(t);
        succeeded(await device.get(server.url));
        succeeded(await device.get(server.url));
        assert.deepEqual(cookiesIn(server.requests[1]), ['a=1']);
    });
});

describe('A cookie for a domain', CONCURRENCY, () => {
    // What the hosts are sent in a second round, when one of them has set the cookies.
    async function sentTo(t, cookies, setter, hosts) {
        const server = await startServer(t, [setting(...cookies), PLAIN]);
        const device = startDevice(t);
        const url = (host) => server.url.replace('127.0.0.1', host);
        succeeded(await device.get(url(setter)));
        for (const host of hosts) succeeded(await device.get(url(host)));
        return server.requests.slice(1).map((request) => cookiesIn(request)[0] ?? '');
    }

    test('is sent to the hosts below it', async (t) => {
        const hosts = ['auth.cloud.localhost', 'account.cloud.localhost', 'other.localhost'];
        assert.deepEqual(await sentTo(t, ['a=1; Domain=cloud.localhost'], hosts[0], hosts),
            ['a=1', 'a=1', '']);
    });

    test('is not sent to other hosts when it names none', async (t) => {
        const hosts = ['auth.localhost', 'account.localhost', 'below.auth.localhost'];
        assert.deepEqual(await sentTo(t, ['a=1'], hosts[0], hosts), ['a=1', '', '']);
    });

    test('is refused from a host that is not below it', async (t) => {
        const hosts = ['auth.localhost', 'account.localhost'];
        const cookies = [`a=1; Domain=${hosts[1]}`];
        assert.deepEqual(await sentTo(t, cookies, hosts[0], hosts), ['', '']);
    });
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

    test('that is a folder is failure 24', async (t) => {
        const server = await startServer(t, PLAIN);
        const device = startDevice(t);
        const cookies = device.path('folder');
        mkdirSync(cookies);
        assertRequestFailed(await device.get(server.url, {cookies}), server.url, 24,
            `Invalid cookie file path: ${cookies}`);
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

    test('is read no further than to a line that begins with a NUL byte', async (t) => {
        const server = await startServer(t, setting('b=2'));
        const device = startDevice(t);
        const line = '127.0.0.1\tFALSE\t/\tFALSE\t0';
        writeFileSync(device.cookies, `${line}\ta\t1\n\0\n${line}\tlate\t1\n`);
        succeeded(await device.get(server.url));
        assert.deepEqual(server.requests.map(cookiesIn), [['a=1']]);
        assert.deepEqual(jar(device.cookies).map((fields) => fields[5]), ['b', 'a']);
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

    test('leaves nothing beside it', async (t) => {
        const server = await startServer(t, setting('a=1'));
        const device = startDevice(t);
        succeeded(await device.get(server.url));
        assert.deepEqual(readdirSync(device.folder).sort(), ['cookies', 'device.json']);
    });
});
