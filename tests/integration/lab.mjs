// What the tests share: a device (the probe with a profile and a cookie file of its own), scripted
// servers, replies, and failures.
import assert from 'node:assert/strict';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:net';
import {join} from 'node:path';
import {createServer as createTlsServer} from 'node:tls';

import {startProbe} from '../probe/probe.mjs';

if (!process.env.ORBA_SANDBOX_KIND) {
    throw new Error('the library uses fixed paths in /tmp: run the tests with scripts/sandbox');
}

export const USER_AGENT = 'OrbaNAS/7.2 (integration)';
const HTTP_CLIENT_EXCEPTION = 'ORBA::OAuth2Client::HttpClientException';

// Whether libcurl is this version or a newer one: what it does was measured with 7.88 and 8.14.
export function libcurlFrom(major, minor) {
    const [ownMajor, ownMinor] = process.env.ORBA_LIBCURL.split('.').map(Number);
    return ownMajor > major || (ownMajor === major && ownMinor >= minor);
}

export function scratchFolder(t) {
    const folder = mkdtempSync('/tmp/integration-');
    t.after(() => rmSync(folder, {recursive: true}));
    return folder;
}

// ---- The device ---------------------------------------------------------------------------------

// Each of its requests is made by a fresh HttpClient, so that nothing but the cookie file ties them
// together. What needs one object for several requests uses the probe itself.
class Device {
    #count = 0;

    constructor(probe, folder) {
        this.probe = probe;
        this.folder = folder;
        this.cookies = this.path('cookies');
    }

    path(name) {
        return join(this.folder, name);
    }

    get(url, more) {
        return this.probe.get(this.#fresh(url, {follow: false, ...more}));
    }

    getJson(url, more) {
        return this.probe.getJson(this.#fresh(url, more));
    }

    post(url, body, more) {
        return this.probe.post(this.#fresh(url, {body, ...more}));
    }

    #fresh(url, more) {
        this.#count += 1;
        return {client: `client ${this.#count}`, url, cookies: this.cookies, ...more};
    }
}

export function startDevice(t, {env} = {}) {
    const folder = scratchFolder(t);
    const path = join(folder, 'device.json');
    writeFileSync(path, JSON.stringify({serial_number: 'ORBA-0123456789', user_agent: USER_AGENT}));
    const probe = startProbe({ORBA_HOST_PROFILE: path, ...env});
    t.after(() => probe.end());
    return new Device(probe, folder);
}

// ---- Scripted servers ---------------------------------------------------------------------------

const HEAD_END = '\r\n\r\n';

// The first whole request in `bytes`, a latin1 text, or undefined.
function firstRequest(bytes) {
    const end = bytes.indexOf(HEAD_END);
    if (end < 0) return undefined;
    const head = bytes.slice(0, end + HEAD_END.length);
    const length = Number(head.match(/^content-length: (\d+)\r$/im)?.[1] ?? 0);
    return bytes.length >= head.length + length ? bytes.slice(0, head.length + length) : undefined;
}

// One connection to a scripted server.
class Connection {
    #received = '';
    #notify = () => {};

    constructor(socket, requests) {
        this.socket = socket;
        this.requests = requests;
        this.closed = new Promise((resolve) => socket.on('close', resolve));
        socket.setEncoding('latin1');
        socket.on('data', (bytes) => {
            this.#received += bytes;
            this.#notify();
        });
        socket.on('error', () => {}); // many tests end the client
    }

    // What `find` takes from the bytes that are not taken yet, once it finds something. Never
    // settles if the client ends before.
    async take(find) {
        for (;;) {
            const found = find(this.#received);
            if (found !== undefined) {
                this.#received = this.#received.slice(found.length);
                return found;
            }
            await new Promise((resolve) => (this.#notify = resolve));
        }
    }

    // The next request, head and body as they came, as latin1 text.
    async request() {
        const request = await this.take(firstRequest);
        this.requests.push(request);
        return request;
    }

    // The next request's head, for who does not wait for the body.
    head() {
        return this.take((bytes) => {
            const end = bytes.indexOf(HEAD_END);
            return end < 0 ? undefined : bytes.slice(0, end + HEAD_END.length);
        });
    }
}

// Takes one request, answers it with the bytes and closes the connection. The request is taken
// first because a socket that is closed with bytes unread resets the connection.
function answer(bytes) {
    return async (connection) => {
        await connection.request();
        connection.socket.end(bytes);
    };
}

// Answers by the request's path; a path that is not there is a 404.
export function byPath(answers) {
    return async (connection) => {
        const path = pathOf(await connection.request());
        connection.socket.end(answers[path] ?? reply(404));
    };
}

export function pathOf(request) {
    return request.split(' ', 2)[1];
}

export const drop = answer('');

// Takes one request and resets the connection.
export async function reset(connection) {
    await connection.request();
    connection.socket.resetAndDestroy();
}

function listen(server, options) {
    return new Promise((resolve, reject) => {
        server.once('error', reject);
        server.listen(options, resolve);
    });
}

// Listens at each host's same port, which is free at all of them.
async function listenAt(hosts, createOne) {
    for (;;) {
        const servers = [];
        try {
            for (const host of hosts) {
                servers.push(createOne());
                await listen(servers.at(-1), {host, port: servers[0].address()?.port ?? 0});
            }
            return servers;
        } catch (error) {
            servers.forEach((server) => server.close());
            if (error.code !== 'EADDRINUSE') throw error;
        }
    }
}

// A server on a free port. `script` says what is done with a connection: reply bytes, or a function
// of the Connection; of a list, the n-th is for the n-th connection and the last for all others.
// The server has its `port`, its `url`, when (`arrivals`, in ms) and from which address
// (`peers`) connections came, and the `requests` that were taken.
export async function startServer(t, script, {tls, hosts = ['127.0.0.1'], name} = {}) {
    const steps = [script].flat().map((s) => (typeof s === 'function' ? s : answer(s)));
    const [arrivals, peers, requests, sockets] = [[], [], [], []];
    const talk = async (socket) => {
        const step = steps[Math.min(arrivals.length, steps.length) - 1];
        await step(new Connection(socket, requests));
    };
    const createOne = () => {
        const server = tls ? createTlsServer(tls, talk) : createServer(talk);
        // Of a TLS server: the connection below, so that handshakes that fail are counted, too.
        server.prependListener('connection', (socket) => {
            arrivals.push(performance.now());
            peers.push(socket.remoteAddress);
            sockets.push(socket);
            socket.on('error', () => {});
        });
        server.on('tlsClientError', () => {});
        return server;
    };
    const servers = await listenAt(hosts, createOne);
    t.after(() => {
        sockets.forEach((socket) => socket.destroy());
        servers.forEach((server) => server.close());
    });
    const {port} = servers[0].address();
    const host = name ?? hosts[0];
    return {port, url: `${tls ? 'https' : 'http'}://${host}:${port}/`, arrivals, peers, requests};
}

// ---- Replies ------------------------------------------------------------------------------------

export function reply(status, {headers = [], body = ''} = {}) {
    const lines = [
        `HTTP/1.1 ${status} Text`, ...headers,
        `Content-Length: ${Buffer.byteLength(body)}`, 'Connection: close',
    ];
    return Buffer.concat([Buffer.from(lines.join('\r\n') + HEAD_END, 'latin1'), Buffer.from(body)]);
}

export function json(value) {
    return reply(200, {headers: ['Content-Type: application/json'], body: JSON.stringify(value)});
}

export function redirect(location, status = 302) {
    return reply(status, {headers: [`Location: ${location}`]});
}

// ---- Failures -----------------------------------------------------------------------------------

const TRANSFER_FAILURES = {
    26: 'Failed to send http request with Curl.',
    31: 'Failed to resolve host of url.',
    32: 'Request timeout.',
    33: "The remote server's SSL certificate was deemed not OK.",
};

export function transferFailure(code, curlResult) {
    return `[${TRANSFER_FAILURES[code]}]: curl return: ${curlResult}`;
}

// The cause that is reported for a reply with a status that is a failure.
export function statusFailure(url, status) {
    if (status >= 300 && status < 400) {
        return `Failed to get curl redirection url. URL [${url}] replied http status code = ` +
            `${status},curl returned: 0: curl return: 0`;
    }
    const blanks = status >= 400 && status < 500 ? '  ' : ' ';
    return `URL [${url}] replied http status code${blanks}${status}: curl return: 0`;
}

export const NOT_JSON = 'Failed to parse response, might be format problem.';

export function wrapped(url, cause) {
    return `Failed to do HTTP Get request to [${url}] due to: ${cause}`;
}

export function assertFailed(answered, {name = HTTP_CLIENT_EXCEPTION, code, text}) {
    assert.deepEqual({name: answered.class, code: answered.code, text: answered.text}, {name, code, text});
}

// A request that failed with the code, for the cause.
export function assertRequestFailed(answered, url, code, cause) {
    assertFailed(answered, {code, text: wrapped(url, cause)});
}

export function assertTransferFailed(answered, url, code, curlResult) {
    assertRequestFailed(answered, url, code, transferFailure(code, curlResult));
}

// A request that returned normally; gives its result.
export function succeeded(answered) {
    assert.equal(answered.text, undefined);
    return answered.result;
}
