// Reads what callgrind counted: the instructions that a library executed itself and had executed by
// the C and C++ run-time libraries, and those of the other libraries that it called.
import {readFileSync} from 'node:fs';

const LIBRARY = /\/liborbaoauth2client\.so/;
// Calls to these do not count as the library's. The rest that it calls is the run-time's: strings,
// maps, memory, the loader's thread-local variables.
const GROUPS = [
    ['libcurl', /\/libcurl/],
    ['jsoncpp', /\/libjsoncpp/],
    ['platform', /\/lib(klib|orbatovra|orbaudc)\.so/],
];
const ALLOCATORS = new Set(['malloc', 'calloc', 'realloc']);

const group = (object, name) => (name === 'syslog' ? 'syslog'
    : GROUPS.find(([, pattern]) => pattern.test(object))?.[0] ?? 'own');

// The lines of a profile that carry a cost: {object, name, cost} for a function's own instructions,
// and the same with {calleeObject, callee, calls} for those spent in what it called.
function* costs(text) {
    let object;
    let name;
    let callee;
    let calleeObject;
    let calls;
    for (const line of text.split('\n')) {
        const [, key, value] = line.match(/^(ob|fn|cob|cfn|calls)=(.*)$/) ?? [];
        const [, cost] = line.match(/^[-+*\d]\S* (\d+)$/) ?? [];
        if (key === 'ob') object = value;
        else if (key === 'fn') name = value;
        else if (key === 'cob') calleeObject = value;
        else if (key === 'cfn') callee = value;
        else if (key === 'calls') calls = parseInt(value, 10);
        else if (cost && calls) {
            yield {object, name, cost: Number(cost), calleeObject: calleeObject ?? object, callee, calls};
            calls = calleeObject = undefined;
        } else if (cost) yield {object, name, cost: Number(cost)};
    }
}

/**
 * @param file what callgrind wrote, with --compress-strings=no --compress-pos=no
 * @param times how many requests it saw
 * @return per request: `instructions` by whom the library had them executed (`own`, `libcurl`,
 *     `jsoncpp`, `platform`, `syslog`), `total` of the whole process, and `allocations`
 */
export function readCallgrind(file, times) {
    const instructions = {own: 0, libcurl: 0, jsoncpp: 0, platform: 0, syslog: 0};
    let total = 0;
    let allocations = 0;
    for (const {object, name, cost, calleeObject, callee, calls} of costs(readFileSync(file, 'utf8'))) {
        if (!calls) total += cost;
        if (ALLOCATORS.has(callee) && !ALLOCATORS.has(name)) allocations += calls;
        if (!LIBRARY.test(object)) continue;
        if (!calls) instructions.own += cost;
        else if (!LIBRARY.test(calleeObject)) instructions[group(calleeObject, callee)] += cost;
    }
    for (const key of Object.keys(instructions)) instructions[key] /= times;
    return {instructions, total: total / times, allocations: allocations / times};
}
