// usage: node https_round_trip.mjs PORT
// Serves HTTPS on the loopback with the sandbox's certificate, and has it checked by Node.js and by
// openssl with the system's CA bundle. Prints a line for each.
import { execFile } from 'node:child_process';
import { readFileSync } from 'node:fs';
import https from 'node:https';

const host = 'auth.localhost';
const server = https.createServer(
    { cert: readFileSync(process.env.ORBA_TLS_CERT), key: readFileSync(process.env.ORBA_TLS_KEY) },
    (request, response) => response.end('hello'),
);

function get(url) {
    return new Promise((resolve, reject) => {
        // Node.js 18 tries one address only, and ::1 would come first.
        https.get(url, { agent: false, family: 4 }, (response) => {
            let body = '';
            response.on('data', (data) => { body += data; });
            response.on('end', () => resolve(`${response.statusCode} ${body}`));
        }).on('error', reject);
    });
}

function opensslStatus(port) {
    const bundle = '/etc/ssl/certs/ca-certificates.crt';
    const options = ['-connect', `${host}:${port}`, '-verify_hostname', host, '-CAfile', bundle,
        '-no-CApath', '-no-CAstore', '-verify_return_error', '-brief'];
    return new Promise((resolve) => {
        const child = execFile('openssl', ['s_client', ...options], (error) => {
            resolve(error ? `${error.code} ${error.message}` : 0);
        });
        child.stdin.end();
    });
}

server.listen(Number(process.argv[2]), '127.0.0.1', async () => {
    const { port } = server.address();
    console.log(`node: ${await get(`https://${host}:${port}/`)}`);
    console.log(`openssl: ${await opensslStatus(port)}`);
    server.close();
});
