#!/usr/bin/env node
// The servers of the benchmarks, on free loopback ports: the test cloud, and a server, plain and over
// TLS, that answers from memory:
//   /json/BYTES   a JSON reply of about that size, with a cookie
//   /wait         a small JSON reply after 20 ms
//   /redirect     302 to a login page with a challenge; the page answers like /json/1024
//   /token        what a token endpoint answers
//
// usage: node server.mjs FOLDER
//
// When all are ready, FOLDER has the device profiles web.json and grant.json (with the PKCE access
// token), and then servers.json. Certificate and key are those in $ORBA_TLS_CERT and $ORBA_TLS_KEY.
import {once} from 'node:events';
import {readFileSync, renameSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {createServer as createTlsServer} from 'node:https';
import {join} from 'node:path';

import {startCloud} from '../cloud/cloud-server.mjs';

const TOKENS = JSON.stringify({
    access_token: 'a'.repeat(43), id_token: 'i'.repeat(600), refresh_token: 'r'.repeat(43),
    expires_in: 3600, scope: 'openid offline_access fleet.read', token_type: 'Bearer',
});

const replies = new Map();

// Texts of a kilobyte each: a reply of many small values measures only how jsoncpp stores them.
function reply(bytes) {
    if (!replies.has(bytes)) {
        const entries = Array(Math.max(1, Math.round(bytes / 1000))).fill('x'.repeat(976));
        replies.set(bytes, Buffer.from(JSON.stringify({entries})));
    }
    return replies.get(bytes);
}

function send(response, body, status = 200, headers = {}) {
    response.writeHead(status, {
        'Content-Type': 'application/json', 'Content-Length': Buffer.byteLength(body),
        'Set-Cookie': 'session=5f3c1b7a9d; Path=/; HttpOnly', ...headers,
    });
    response.end(body);
}

const answers = {
    json: (response, bytes) => send(response, reply(Number(bytes))),
    wait: (response) => setTimeout(send, 20, response, reply(1024)),
    redirect: (response) =>
        send(response, '', 302, {Location: '/login?login_challenge=Hk3d9%2DxTq&x=1'}),
    login: (response) => send(response, reply(1024)),
    token: (response) => response.req.on('end', () => send(response, TOKENS)).resume(),
};

async function listen(server) {
    server.on('request', ({url}, response) => {
        const [, name, argument] = url.split(/[/?]/);
        (answers[name] ?? ((unknown) => send(unknown, '{}', 404)))(response, argument);
    });
    await once(server.listen(0, '127.0.0.1'), 'listening');
    return `127.0.0.1:${server.address().port}`;
}

const folder = process.argv[2];
const tls = {cert: readFileSync(process.env.ORBA_TLS_CERT), key: readFileSync(process.env.ORBA_TLS_KEY)};
const write = (name, value) => writeFileSync(join(folder, name), JSON.stringify(value));
const {profile, info} = await startCloud();
const {pkce_access_token: token, ...webProfile} = profile;
write('web.json', webProfile);
write('grant.json', {...webProfile, pkce_access_token: token});
write('servers.json.new', {
    ...info,
    http: `http://${await listen(createServer())}`,
    https: `https://${await listen(createTlsServer(tls))}`,
});
renameSync(join(folder, 'servers.json.new'), join(folder, 'servers.json'));
