// An HTTPS server on a free port of the loopback, for one test program.
//   node https_server.mjs CERTIFICATE KEY    or, for a server that does not speak TLS:
//   node https_server.mjs
// Its port is the first line of its output. It ends when its input ends.
// It grants everything; the grant is the request itself.
import { readFileSync } from 'node:fs';
import http from 'node:http';
import https from 'node:https';

function listener(request, response) {
    const { method, url, headers } = request;
    const chunks = [];
    request.on('data', (chunk) => chunks.push(chunk));
    request.on('end', () => {
        const grant = JSON.stringify({ method, url, headers, body: Buffer.concat(chunks).toString() });
        response.end(JSON.stringify({ code: 'success', grant }));
    });
}

const [certificate, key] = process.argv.slice(2);
const server = certificate
    ? https.createServer({ cert: readFileSync(certificate), key: readFileSync(key) }, listener)
    : http.createServer(listener);
server.on('tlsClientError', () => {}); // clients that refuse the certificate are expected
server.listen(0, '127.0.0.1', () => console.log(server.address().port));
process.stdin.on('end', () => process.exit()).resume();
