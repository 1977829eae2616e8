// Reads what callgrind counted.
import {readFileSync} from 'node:fs';

const LIBRARY = /\/liborbaoauth2client\.so/;
// Calls to these do not count as the library's. What else it calls is the run-time's: strings, maps,
// memory, the loader's thread-local variables. orba-bench hides two functions of libcurl.
const OTHERS = /\/(libcurl|libjsoncpp|libklib\.so|liborbatovra\.so|liborbaudc\.so|orba-bench)/;
const ALLOCATORS = new Set(['malloc', 'calloc', 'realloc']);

/**
 * @param file what callgrind wrote, with --compress-strings=no --compress-pos=no
 * @param times how many requests it saw
 * @return per request: instructions that the library executed itself or had executed by the run-time
 *     (`own`), those of `syslog` and `total` of the process; and `allocations`
 */
export function readCallgrind(file, times) {
    const sums = {own: 0, syslog: 0, total: 0, allocations: 0};
    let at = {}; // the object and function, and what it called: ob, fn, cob, cfn, calls
    for (const line of readFileSync(file, 'utf8').split('\n')) {
        const [, key, value] = line.match(/^(ob|fn|cob|cfn|calls)=(.*)$/) ?? [];
        if (key) at[key] = value;
        const cost = Number(line.match(/^[-+*\d]\S* (\d+)$/)?.[1]);
        if (key || Number.isNaN(cost)) continue;
        const {ob: object, fn: name, cob: callee = object, cfn, calls} = at;
        at = {ob: object, fn: name};
        if (!calls) sums.total += cost;
        else if (ALLOCATORS.has(cfn) && !ALLOCATORS.has(name)) sums.allocations += parseInt(calls, 10);
        if (!LIBRARY.test(object) || (calls && LIBRARY.test(callee))) continue;
        if (calls && /^(syslog|__syslog_chk)$/.test(cfn)) sums.syslog += cost; // _chk: by _FORTIFY_SOURCE
        else if (!calls || !OTHERS.test(callee)) sums.own += cost;
    }
    return Object.fromEntries(Object.entries(sums).map(([key, sum]) => [key, sum / times]));
}
