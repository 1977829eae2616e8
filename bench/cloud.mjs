#!/usr/bin/env node
// The loopback cloud, as a bench needs it: with a record of the time that each request took inside
// the server, and of the processor time that the server had used by then.
//
// usage: node cloud.mjs FOLDER
//
// When it is ready, FOLDER/cloud.json holds its addresses, FOLDER/grant.json a device profile and
// FOLDER/web.json the same without PKCE access token. At the end (SIGTERM), FOLDER/requests.json
// holds [{"path", "seconds", "cpuSeconds"}, ...] in the order of the requests.
import {renameSync, writeFileSync} from 'node:fs';
import {join} from 'node:path';
import {PerformanceObserver} from 'node:perf_hooks';

import {startCloud} from '../cloud/cloud-server.mjs';

const folder = process.argv[2];

function write(name, value) {
    const path = join(folder, name);
    writeFileSync(`${path}.new`, JSON.stringify(value));
    renameSync(`${path}.new`, path);
}

const requests = [];
const observer = new PerformanceObserver((list) => {
    for (const {name, duration, detail} of list.getEntries()) {
        if (name !== 'HttpRequest') continue;
        const {user, system} = process.cpuUsage();
        const path = detail.req.url.replace(/[?].*/, '');
        requests.push({path, seconds: duration / 1e3, cpuSeconds: (user + system) / 1e6});
    }
});
observer.observe({entryTypes: ['http']});

const cloud = await startCloud();
process.once('SIGTERM', async () => {
    write('requests.json', requests);
    await cloud.close();
});
const {pkce_access_token: token, ...profile} = cloud.profile;
write('web.json', profile);
write('grant.json', {...profile, pkce_access_token: token});
write('cloud.json', cloud.info);
