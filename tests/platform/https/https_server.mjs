// An HTTPS server on a free port of the loopback, for one test program.
//   node https_server.mjs CERTIFICATE KEY    or, for a server that does not speak TLS:
//   node https_server.mjs
// Its port is the first line of its output. It ends when its input ends.
// A request's form field "reply" or "state" may hold, as JSON, what to answer; otherwise, or with
// {"grant": true}, the answer is the request itself.
import { readFileSync } from 'node:fs';
import http from 'node:http';
import https from 'node:https';

function wanted(body) {
    const form = new URLSearchParams(body);
    const script = form.get('reply') ?? form.get('state') ?? '';
    return script.startsWith('{') ? JSON.parse(script) : {};
}

function answer(request, response, body) {
    const script = wanted(body);
    const { method, url, headers } = request;
    const echo = JSON.stringify({ method, url, headers, body });
    const text = script.grant ? JSON.stringify({ code: 'success', grant: echo }) : (script.body ?? echo);
    response.writeHead(script.status ?? 200, script.headers ?? {});
    if (script.cut) {
        response.write(text, () => response.destroy());
    } else {
        response.end(text.repeat(script.times ?? 1));
    }
}

function listener(request, response) {
    const chunks = [];
    request.on('data', (chunk) => chunks.push(chunk));
    request.on('end', () => answer(request, response, Buffer.concat(chunks).toString()));
}

const [certificate, key] = process.argv.slice(2);
const server = certificate
    ? https.createServer({ cert: readFileSync(certificate), key: readFileSync(key) }, listener)
    : http.createServer(listener);
server.on('tlsClientError', () => {}); // clients that refuse the certificate are expected
server.listen(0, '127.0.0.1', () => console.log(server.address().port));
process.stdin.on('end', () => process.exit()).resume();
