// Certificates for scripted servers, good ones and bad ones, made by the openssl command.
import {execFileSync} from 'node:child_process';
import {readFileSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';

import {scratchFolder} from './lab.mjs';

const {ORBA_CA_CERT, ORBA_CA_KEY, ORBA_TLS_CERT, ORBA_TLS_KEY} = process.env;
const EVERY_LOOPBACK_NAME = 'DNS:localhost,DNS:*.localhost,IP:127.0.0.1,IP:::1';
const NEW_KEY = ['-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes', '-subj', '/CN=localhost'];
const DAY = 24 * 3600 * 1000;

function openssl(...args) {
    return execFileSync('openssl', args, {stdio: ['ignore', 'pipe', 'pipe']});
}

function inDays(days) {
    const iso = new Date(Date.now() + days * DAY).toISOString(); // 2026-01-31T12:00:00.000Z
    return `${iso.replace(/[-:T]/g, '').slice(0, 14)}Z`;
}

export function readPair({cert, key}) {
    return {cert: readFileSync(cert), key: readFileSync(key)};
}

// What a TLS server with the sandbox's own certificate is made from.
export const GOOD = readPair({cert: ORBA_TLS_CERT, key: ORBA_TLS_KEY});

const TRUSTED_CA = {cert: ORBA_CA_CERT, key: ORBA_CA_KEY};

// Makes certificates in a folder of its own; their files are `<number>.pem` and `<number>.key`.
export class Certificates {
    #count = 0;

    constructor(t) {
        this.folder = scratchFolder(t);
    }

    #newFiles() {
        this.#count += 1;
        const base = join(this.folder, `${this.#count}`);
        return {cert: `${base}.pem`, key: `${base}.key`, request: `${base}.csr`};
    }

    // A self-signed certificate: of a CA nobody knows, or of a server.
    selfSigned({extensions = ['basicConstraints=critical,CA:TRUE']} = {}) {
        const {cert, key} = this.#newFiles();
        openssl('req', '-x509', ...NEW_KEY, '-keyout', key, '-out', cert,
            ...extensions.flatMap((extension) => ['-addext', extension]));
        return {cert, key};
    }

    // Only `openssl ca` can choose both dates.
    #sign({ca, names, from, until, extensions}) {
        const {cert, key, request} = this.#newFiles();
        const config = join(this.folder, 'openssl.cnf');
        const lines = [`subjectAltName=${names}`, ...extensions];
        writeFileSync(join(this.folder, 'index'), '');
        writeFileSync(config, [
            '[ca]', 'default_ca=own', '[own]', `database=${join(this.folder, 'index')}`,
            `new_certs_dir=${this.folder}`, 'rand_serial=yes', 'default_md=sha256',
            'policy=policy', '[policy]', 'commonName=supplied', '[extensions]', ...lines, '',
        ].join('\n'));
        openssl('req', '-new', ...NEW_KEY, '-keyout', key, '-out', request);
        openssl('ca', '-batch', '-notext', '-config', config, '-extensions', 'extensions',
            '-cert', ca.cert, '-keyfile', ca.key, '-in', request, '-out', cert,
            '-startdate', inDays(from), '-enddate', inDays(until));
        return {cert, key};
    }

    makeFiles(wanted = {}) {
        return this.#sign({
            ca: TRUSTED_CA, names: EVERY_LOOPBACK_NAME, from: -1, until: 1, extensions: [], ...wanted,
        });
    }

    // What a TLS server with a certificate of its own is made from.
    make(wanted) {
        return readPair(this.makeFiles(wanted));
    }

    expired() {
        return this.make({from: -2, until: -1});
    }
}
