import assert from 'node:assert/strict';
import {writeFileSync} from 'node:fs';
import {createSecureServer} from 'node:http2';
import {describe, test} from 'node:test';

import {Certificates, GOOD, readPair} from './certificates.mjs';
import {assertTransferFailed, json, startDevice, startServer, succeeded} from './lab.mjs';

const GREETING = json({hello: 'device'});

async function assertAccepted(t, {tls, name, env}) {
    const server = await startServer(t, GREETING, {tls, name});
    assert.deepEqual(succeeded(await startDevice(t, {env}).getJson(server.url)), {hello: 'device'});
    assert.equal(server.arrivals.length, 1);
    return server;
}

// After three attempts, of which none got as far as HTTP.
async function assertRefused(t, {tls, name, env, code = 33, curlResult = 60}) {
    const server = await startServer(t, GREETING, {tls, name});
    const answered = await startDevice(t, {env}).getJson(server.url);
    assertTransferFailed(answered, server.url, code, curlResult);
    assert.equal(server.arrivals.length, 3);
    assert.deepEqual(server.requests, []);
}

function only(version) {
    return {
        ...GOOD, minVersion: version, maxVersion: version,
        ciphers: 'DEFAULT:@SECLEVEL=0', // or Node.js itself would not speak the old versions
    };
}

// The settings of OpenSSL that a system can have, for the environment of the device.
function systemSettings(t, ...lines) {
    const path = `${new Certificates(t).folder}/system.cnf`;
    writeFileSync(path, ['openssl_conf=init', '[init]', 'ssl_conf=ssl', '[ssl]',
        'system_default=system', '[system]', ...lines, ''].join('\n'));
    return {OPENSSL_CONF: path};
}

describe('A server certificate', {concurrency: 6}, () => {
    test('that has expired is refused', (t) =>
        assertRefused(t, {tls: new Certificates(t).expired()}));

    test('for another host is refused', (t) =>
        assertRefused(t, {tls: new Certificates(t).make({names: 'DNS:other.localhost'}),
            name: 'auth.localhost'}));

    test('that is self-signed is refused', (t) => {
        const certificates = new Certificates(t);
        const extensions = ['basicConstraints=critical,CA:FALSE', 'subjectAltName=IP:127.0.0.1'];
        return assertRefused(t, {tls: readPair(certificates.selfSigned({extensions}))});
    });

    test('of an unknown CA is refused, whatever the environment says of CAs', (t) => {
        const certificates = new Certificates(t);
        const ca = certificates.selfSigned();
        const env = {SSL_CERT_FILE: ca.cert, CURL_CA_BUNDLE: ca.cert};
        return assertRefused(t, {tls: certificates.make({ca}), env});
    });

    test('is refused when the intermediate certificate is not sent, and accepted when it is',
        async (t) => {
            const certificates = new Certificates(t);
            const ca = certificates.makeFiles({extensions: ['basicConstraints=critical,CA:TRUE']});
            const tls = certificates.make({ca});
            await assertRefused(t, {tls});
            const chain = Buffer.concat([tls.cert, readPair(ca).cert]);
            await assertAccepted(t, {tls: {...tls, cert: chain}});
        });
});

describe('A server that speaks only', {concurrency: 6}, () => {
    // Debian's OpenSSL has security level 2, at which this version has no usable signature.
    test('TLSv1 fails on a system with Debian\'s settings', (t) =>
        assertRefused(t, {tls: only('TLSv1'), code: 26, curlResult: 35}));

    test('TLSv1 is spoken with on a system that allows it', (t) => {
        const settings = ['CipherString=DEFAULT:@SECLEVEL=0', 'MinProtocol=TLSv1.2'];
        return assertAccepted(t, {tls: only('TLSv1'), env: systemSettings(t, ...settings)});
    });

    test('TLSv1.2 is spoken with', (t) => assertAccepted(t, {tls: only('TLSv1.2')}));

    test('a reset in answer to the handshake fails', async (t) => {
        const server = await startServer(t, async (connection) => {
            await connection.take((hello) => hello || undefined);
            connection.socket.resetAndDestroy();
        });
        const url = server.url.replace('http:', 'https:');
        assertTransferFailed(await startDevice(t).getJson(url), url, 26, 35);
        assert.equal(server.arrivals.length, 3);
    });
});

test('A server that prefers HTTP/2 is spoken to in HTTP/2', async (t) => {
    const versions = [];
    const server = createSecureServer({...GOOD, allowHTTP1: true}, (request, response) => {
        versions.push(request.httpVersion);
        response.setHeader('location', '/next?login_challenge=c');
        response.writeHead(302).end();
    });
    await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
    t.after(() => server.close());
    const url = `https://127.0.0.1:${server.address().port}/`;
    const answered = await startDevice(t).get(url);
    succeeded(answered);
    assert.deepEqual(versions, ['2.0']);
    assert.equal(answered.redirectUrl, `${url}next?login_challenge=c`);
});
