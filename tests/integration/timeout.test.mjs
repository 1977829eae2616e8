import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {assertTransferFailed, json, startDevice, startServer, succeeded} from './lab.mjs';

const TIMEOUT = 30; // seconds, of one attempt
const PAUSE = 0.5;
const GREETING = json({hello: 'device'});

const silence = () => {};

// Sends a blank every second for so long, then the rest of the reply. Blanks are JSON, too.
function drip(seconds) {
    return async (connection) => {
        await connection.request();
        connection.socket.write('HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n');
        for (let second = 0; second < seconds && connection.socket.writable; second += 1) {
            await new Promise((resolve) => setTimeout(resolve, 1000));
            connection.socket.write(' ');
        }
        connection.socket.end('{"hello": "device"}');
    };
}

function assertSeconds(answered, seconds) {
    const {seconds: taken} = answered;
    assert.ok(taken >= seconds && taken < 2 * seconds, `took ${taken} s`);
}

async function assertTimedOut(t, script, url = (server) => server.url) {
    const server = await startServer(t, script);
    const answered = await startDevice(t).getJson(url(server));
    assertTransferFailed(answered, url(server), 32, 28);
    assertSeconds(answered, 3 * TIMEOUT + 2 * PAUSE);
    assert.equal(server.arrivals.length, 3);
    const [first, second, third] = server.arrivals;
    for (const gap of [second - first, third - second]) {
        assert.ok(gap > 30000 && gap < 60000, `${gap} ms from attempt to attempt`);
    }
}

describe('A server', {concurrency: 6}, () => {
    test('that never answers is given up after three times 30 seconds', (t) =>
        assertTimedOut(t, silence));

    test('that never finishes the TLS handshake is given up after three times 30 seconds', (t) =>
        assertTimedOut(t, silence, ({url}) => url.replace('http:', 'https:')));

    test('whose reply takes longer than 30 seconds is given up, though bytes keep coming', (t) =>
        assertTimedOut(t, drip(40)));

    test('whose reply takes 25 seconds is waited for', async (t) => {
        const server = await startServer(t, drip(25));
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), {hello: 'device'});
        assertSeconds(answered, 25);
        assert.equal(server.arrivals.length, 1);
    });

    test('that is silent twice is heard at the third attempt', async (t) => {
        const server = await startServer(t, [silence, silence, GREETING]);
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), {hello: 'device'});
        assertSeconds(answered, 2 * TIMEOUT + 2 * PAUSE);
        assert.equal(server.arrivals.length, 3);
    });
});
