#!/usr/bin/env node
// The test cloud as a command: see README.md.
import {randomUUID} from 'node:crypto';
import {readFileSync, renameSync, rmSync, writeFileSync} from 'node:fs';
import {parseArgs} from 'node:util';

const OPTIONS = {
    'port N': 'port of both services on the loopback (default 0: a free one)',
    'cert FILE': 'TLS certificate, PEM (default: $ORBA_TLS_CERT)',
    'key FILE': 'its private key, PEM (default: $ORBA_TLS_KEY)',
    'hops N': 'redirects added between the resume and the callback',
    'consent': 'a separate consent step between login and callback',
    'refuse-account': 'the account service answers badauth',
    'code-ttl SECONDS': 'lifetime of authorization codes (default 60; 0: expired at once)',
    'access-token-ttl SECONDS': 'lifetime of access tokens (default 3600)',
    'grant-challenge TEXT': 'S256 challenge that the codes of the grant endpoint are bound to',
    'host-profile FILE': 'write the matching device profile there (mode 0600)',
    'no-pkce-token': 'leave pkce_access_token out of the profile',
    'ready-file FILE': 'when ready, write addresses and client data there; removed at the end',
    'help': 'show this text (-h)',
    'version': 'show the version',
};

const USAGE = ['usage: node cloud/cloud.mjs [OPTION...]', ...Object.entries(OPTIONS).map(
    ([option, text]) => `  --${option.padEnd(26)}${text}`), ''].join('\n');

function parseOptions() {
    const options = Object.keys(OPTIONS).map((option) => {
        const [name, value] = option.split(' ');
        return [name, {type: value ? 'string' : 'boolean', ...(name === 'help' && {short: 'h'})}];
    });
    return parseArgs({options: Object.fromEntries(options)}).values;
}

function wholeNumber(values, name, highest) {
    const text = values[name];
    if (text === undefined) return undefined;
    if (!/^\d+$/.test(text) || Number(text) > highest) {
        throw new Error(`--${name} takes a whole number from 0 to ${highest}, not "${text}"`);
    }
    return Number(text);
}

function cloudOptions(values) {
    const options = {
        port: wholeNumber(values, 'port', 65535),
        cert: values.cert,
        key: values.key,
        hops: wholeNumber(values, 'hops', 1000),
        consent: values.consent,
        refuseAccount: values['refuse-account'],
        codeTtl: wholeNumber(values, 'code-ttl', 1e6),
        accessTokenTtl: wholeNumber(values, 'access-token-ttl', 1e6),
        grantChallenge: values['grant-challenge'],
    };
    const given = ([, value]) => value !== undefined;
    return Object.fromEntries(Object.entries(options).filter(given));
}

// Readers see the old file or the whole new one. No name that somebody could have taken is written to.
function writeJson(file, value, mode) {
    const unfinished = `${file}.${randomUUID()}`;
    writeFileSync(unfinished, `${JSON.stringify(value, null, 4)}\n`, {mode, flag: 'wx'});
    renameSync(unfinished, file);
}

async function run(values, options) {
    // Loaded late: a wrong option is reported at once, and a missing package in one line.
    const {startCloud} = await import('./cloud-server.mjs');
    const cloud = await startCloud({...options, print: console.log});
    const {'host-profile': profileFile, 'ready-file': readyFile} = values;

    const stop = () => {
        if (readyFile) rmSync(readyFile, {force: true});
        cloud.close();
    };
    process.once('SIGTERM', stop);
    process.once('SIGINT', stop);
    process.stdout.on('error', () => {}); // who stops reading the log does not stop the cloud

    if (profileFile) {
        const profile = {...cloud.profile};
        if (values['no-pkce-token']) delete profile.pkce_access_token;
        writeJson(profileFile, profile, 0o600);
    }
    if (readyFile) writeJson(readyFile, cloud.info, 0o644);
    console.log(`ready issuer=${cloud.issuer} account=${cloud.accountService}`);
}

function fail(status, error) {
    console.error(`cloud: ${error.message.split('\n')[0]}`);
    process.exit(status);
}

let values;
let options;
try {
    values = parseOptions();
    options = cloudOptions(values);
} catch (error) {
    fail(2, error);
}
if (values.help) {
    process.stdout.write(USAGE);
} else if (values.version) {
    console.log(`cloud ${JSON.parse(readFileSync(new URL('package.json', import.meta.url))).version}`);
} else {
    run(values, options).catch((error) => fail(1, error));
}
