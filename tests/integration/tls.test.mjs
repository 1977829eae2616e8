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
    test('of the trusted CA is accepted, by name', (t) =>
        assertAccepted(t, {tls: GOOD, name: 'localhost'}));

    test('of the trusted CA is accepted, by address', (t) => assertAccepted(t, {tls: GOOD}));

    test('for a wildcard name is accepted', (t) => {
        const tls = new Certificates(t).make({names: 'DNS:*.cloud.localhost'});
        return assertAccepted(t, {tls, name: 'auth.cloud.localhost'});
    });

    test('without alternative names is accepted by its common name', (t) =>
        assertAccepted(t, {tls: new Certificates(t).make({names: null}), name: 'localhost'}));

    test('that has expired is refused', (t) =>
        assertRefused(t, {tls: new Certificates(t).expired()}));

    test('that is not yet valid is refused', (t) =>
        assertRefused(t, {tls: new Certificates(t).make({from: 1, until: 2})}));

    test('for another host is refused', (t) =>
        assertRefused(t, {tls: new Certificates(t).make({names: 'DNS:other.localhost'}),
            name: 'auth.localhost'}));

    test('for names is refused when the URL holds the address', (t) =>
        assertRefused(t, {tls: new Certificates(t).make({names: 'DNS:localhost'})}));

    test('that is self-signed is refused', (t) => {
        const certificates = new Certificates(t);
        const extensions = ['basicConstraints=critical,CA:FALSE', 'subjectAltName=IP:127.0.0.1'];
        return assertRefused(t, {tls: readPair(certificates.selfSigned({extensions}))});
    });

    test('of an unknown CA is refused', (t) => {
        const certificates = new Certificates(t);
        return assertRefused(t, {tls: certificates.make({ca: certificates.selfSigned()})});
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

    test('with an RSA key of 1024 bits is refused', (t) => {
        const {cert, key} = new Certificates(t).make({keyType: ['rsa:1024']});
        return assertRefused(t, {tls: {cert, key, ciphers: 'DEFAULT:@SECLEVEL=0'}});
    });

    test('for clients only is refused', (t) => {
        const extensions = ['extendedKeyUsage=clientAuth'];
        return assertRefused(t, {tls: new Certificates(t).make({extensions})});
    });
});

describe('A server that speaks only', {concurrency: 6}, () => {
    // Debian's OpenSSL has security level 2, at which these versions have no usable signature.
    for (const version of ['TLSv1', 'TLSv1.1']) {
        test(`${version} fails on a system with Debian's settings`, (t) =>
            assertRefused(t, {tls: only(version), code: 26, curlResult: 35}));

        test(`${version} is spoken with on a system that allows it`, (t) => {
            const settings = ['CipherString=DEFAULT:@SECLEVEL=0', 'MinProtocol=TLSv1.2'];
            return assertAccepted(t, {tls: only(version), env: systemSettings(t, ...settings)});
        });
    }

    for (const version of ['TLSv1.2', 'TLSv1.3']) {
        test(`${version} is spoken with`, (t) => assertAccepted(t, {tls: only(version)}));
    }

    for (const [what, react] of [
        ['HTTP', ({socket}) => socket.end('HTTP/1.1 400 Bad\r\n\r\n')],
        ['a goodbye', ({socket}) => socket.end()],
        ['a reset', ({socket}) => socket.resetAndDestroy()],
    ]) {
        test(`${what} in answer to the handshake fails`, async (t) => {
            const server = await startServer(t, async (connection) => {
                await connection.take((hello) => hello || undefined);
                react(connection);
            });
            const url = server.url.replace('http:', 'https:');
            assertTransferFailed(await startDevice(t).getJson(url), url, 26, 35);
            assert.equal(server.arrivals.length, 3);
        });
    }
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
