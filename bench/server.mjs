#!/usr/bin/env node
// The server of the benchmarks, plain and over TLS, on free loopback ports. It answers from memory:
//   /json/BYTES   a JSON reply of about that size, with a cookie
//   /wait         a small JSON reply after 20 ms
//   /redirect     302 to a login page that carries a challenge; the page answers like /json/1024
//   /token        what a token endpoint answers
//   /usage        the processor time that this process has used so far, in microseconds
//
// usage: node server.mjs READY-FILE
//
// When it is ready, the file holds {"http": ..., "https": ...}. Certificate and key are those in
// $ORBA_TLS_CERT and $ORBA_TLS_KEY.
import {once} from 'node:events';
import {readFileSync, renameSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {createServer as createTlsServer} from 'node:https';

const WAIT_MS = 20;
const ENTRY_BYTES = 1000;
const COOKIE = 'session=5f3c1b7a9d; Path=/; HttpOnly';

const TOKENS = JSON.stringify({
    access_token: 'a'.repeat(43),
    expires_in: 3600,
    id_token: 'i'.repeat(600),
    refresh_token: 'r'.repeat(43),
    scope: 'openid offline_access fleet.read',
    token_type: 'Bearer',
});

const replies = new Map();

// Texts of a kilobyte each: a reply of many small values measures only how jsoncpp stores them.
function reply(bytes) {
    if (!replies.has(bytes)) {
        const entries = Array(Math.max(1, Math.round(bytes / ENTRY_BYTES)))
            .fill('x'.repeat(Math.min(bytes, ENTRY_BYTES) - 24));
        replies.set(bytes, Buffer.from(JSON.stringify({entries})));
    }
    return replies.get(bytes);
}

function send(response, body, status = 200, headers = {}) {
    response.writeHead(status, {
        'Content-Type': 'application/json',
        'Content-Length': Buffer.byteLength(body),
        'Set-Cookie': COOKIE,
        ...headers,
    });
    response.end(body);
}

function answer(request, response) {
    const [, name, argument] = request.url.split(/[/?]/);
    switch (name) {
        case 'json':
            return send(response, reply(Number(argument)));
        case 'wait':
            return setTimeout(send, WAIT_MS, response, reply(1024));
        case 'redirect':
            return send(response, '', 302, {Location: '/login?login_challenge=Hk3d9%2DxTq&x=1'});
        case 'login':
            return send(response, reply(1024));
        case 'token':
            return request.on('end', () => send(response, TOKENS)).resume();
        case 'usage': {
            const {user, system} = process.cpuUsage();
            return send(response, JSON.stringify(user + system));
        }
        default:
            return send(response, '{}', 404);
    }
}

async function listen(server) {
    await once(server.on('request', answer).listen(0, '127.0.0.1'), 'listening');
    return `127.0.0.1:${server.address().port}`;
}

const tls = {
    cert: readFileSync(process.env.ORBA_TLS_CERT),
    key: readFileSync(process.env.ORBA_TLS_KEY),
};
const readyFile = process.argv[2];
const ready = {
    http: `http://${await listen(createServer())}`,
    https: `https://${await listen(createTlsServer(tls))}`,
};
writeFileSync(`${readyFile}.new`, JSON.stringify(ready));
renameSync(`${readyFile}.new`, readyFile);
