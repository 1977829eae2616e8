// What the results say: rows of the table with their targets, and the figures for docs and plots.

export const MIB = 1 << 20;

// A ratio says how much more ours takes than bare: time, memory, or the growth of either.
const TARGETS = {
    'HTTP': 1.05,
    'HTTP, debug lines off': 1.05,
    'HTTPS, 1 CA': 1.02,
    'HTTPS, all CAs': 1.02,
};
const TEXT_TARGET = 1.05;
const REPLY_TARGET = 1.05;
const THREADS_TARGET = 1.05;
// The limits of the short run, which may have to share its machine: processor time tells what more is
// done, and time only whether there is waiting that was not there.
const FAR_OFF = 1.25;
const STALLED = 2;
const EXPONENT_TARGET = 1.1; // 1 is linear, 2 quadratic
const MEMORY_TARGET = 1;
const MEMORY_GRAIN = MIB / 4; // a process's memory comes in pages and arenas
const INSTRUCTIONS_TARGET = 20000;
const SHARE_TARGET = 0.02;
const SHARE_FAR_OFF = 0.1;

// ---- Texts ---------------------------------------------------------------------------------------

const UNITS = [[1, 's'], [1e-3, 'ms'], [1e-6, 'us'], [0, 'ns']];

export function time(seconds) {
    if (seconds === 0) return '0';
    const [unit, name] = UNITS.find(([least]) => seconds >= least);
    return `${(seconds / (unit || 1e-9)).toPrecision(3)} ${name}`;
}

export function size(bytes) {
    if (bytes >= MIB) return `${+(bytes / MIB).toFixed(1)} MiB`;
    return bytes >= 1024 ? `${+(bytes / 1024).toFixed(1)} KiB` : `${bytes} B`;
}

export const whole = (number) => Math.round(number).toString().replace(/\B(?=(\d{3})+$)/g, ',');
const percent = (share) => `${(100 * share).toPrecision(2)} %`;

// ---- Statistics ----------------------------------------------------------------------------------

function quantile(sorted, share) {
    const rank = Math.min(1, Math.max(0, share)) * (sorted.length - 1);
    const [below, above] = [sorted[Math.floor(rank)], sorted[Math.ceil(rank)]];
    return below + (rank - Math.floor(rank)) * (above - below);
}

// The median, and the ranks between which it lies in 95 of 100 cases.
function spread(values) {
    const sorted = [...values].sort((a, b) => a - b);
    const half = 0.98 / Math.sqrt(sorted.length);
    return {
        count: sorted.length,
        median: quantile(sorted, 0.5),
        low: quantile(sorted, 0.5 - half),
        high: quantile(sorted, 0.5 + half),
    };
}

const median = (values) => spread(values).median;
const mean = (values) => values.reduce((sum, value) => sum + value, 0) / values.length;
const sum = (object) => Object.values(object).reduce((total, value) => total + value, 0);

// How a figure grows with the size: the exponent between two sizes.
const exponent = (first, last, figure) =>
    Math.log(figure(last) / figure(first)) / Math.log(last.detail / first.detail);

// ---- Rows ----------------------------------------------------------------------------------------

// With fewer values there is no interval that would hold the median in 95 of 100 cases.
const FEWEST = 6;

// A target within the interval is neither held nor missed.
function judge({count, low, high}, limit) {
    if (count < FEWEST) return 'unclear';
    if (high <= limit) return 'held';
    return low > limit ? 'MISSED' : 'unclear';
}

function ratioRow(what, ours, bare, ratio, limit) {
    const {median: middle, low, high} = ratio;
    return {
        what,
        ours,
        bare,
        ratio: `${middle.toFixed(3)} (${low.toFixed(3)} to ${high.toFixed(3)})`,
        target: `<= ${limit}`,
        held: judge(ratio, limit),
    };
}

function exactRow(what, ours, bare, ratio, target, held) {
    return {what, ours, bare, ratio, target, held: held ? 'held' : 'MISSED'};
}

function pairRow(what, {ours, bare, ratio, processorRatio}, limit) {
    const row = ratioRow(what, time(ours), time(bare), ratio, limit);
    const processor = processorRatio.median.toFixed(3);
    if (limit !== FAR_OFF) return {...row, processor};
    const held = judge(ratio, STALLED) === 'MISSED' ? 'MISSED' : judge(processorRatio, FAR_OFF);
    return {...row, processor, target: `processor <= ${FAR_OFF}`, held};
}

function exponentRow(what, pairs, least, limit) {
    const fit = pairs.filter(({detail}) => detail >= least);
    if (fit.length < 2) return [];
    const [ours, bare] = ['ours', 'bare'].map((side) =>
        exponent(fit[0], fit.at(-1), (pair) => pair[side]));
    const range = `${size(fit[0].detail)} to ${size(fit.at(-1).detail)}`;
    return [exactRow(`${what}, growth from ${range}`, `size^${ours.toFixed(2)}`,
        `size^${bare.toFixed(2)}`, '', `size^${limit}`, ours <= limit)];
}

function requestRows({requests, short}) {
    return requests.map((pair) => {
        const what = `${pair.operation}, ${pair.detail}`;
        const limit = short ? FAR_OFF : TARGETS[pair.detail];
        if (pair.group === 'control') {
            return {...pairRow(what, pair, limit), target: '', held: ''};
        }
        return pairRow(what, pair, limit);
    });
}

const byNumber = (pairs) => pairs.map((pair) => ({...pair, detail: Number(pair.detail)}));

function replyRows({replies, short}) {
    const pairs = byNumber(replies);
    const limit = short ? FAR_OFF : REPLY_TARGET;
    return [
        ...pairs.map((pair) => pairRow(`get(Json), reply of ${size(pair.detail)}`, pair, limit)),
        ...(short ? [] : exponentRow('get(Json), time', pairs, MIB, EXPONENT_TARGET)),
    ];
}

export function memoryPairs({memory}) {
    const sizes = [...new Set(memory.map(({bytes}) => bytes))];
    const peak = (kind, side, size) => memory.find((run) =>
        run.kind === kind && run.side === side && run.bytes === size).peak;
    return ['reply', 'discard'].flatMap((kind) => sizes.map((detail) => (
        {kind, detail, ours: peak(kind, 'ours', detail), bare: peak(kind, 'bare', detail)})));
}

function memoryRows(results) {
    const pairs = memoryPairs(results);
    const row = ({kind, detail, ours, bare}) => {
        const what = kind === 'reply' ? `get(Json), peak memory, reply of ${size(detail)}`
            : `get(false), peak memory, reply of ${size(detail)}`;
        const target = kind === 'reply' ? `<= ${MEMORY_TARGET}` : `<= bare + ${size(MEMORY_GRAIN)}`;
        const held = kind === 'reply' ? ours <= MEMORY_TARGET * bare : ours <= bare + MEMORY_GRAIN;
        return exactRow(what, size(ours), size(bare), kind === 'reply' ? (ours / bare).toFixed(3) : '',
            target, held);
    };
    const replies = pairs.filter(({kind, detail}) => kind === 'reply' && detail >= MIB);
    return [
        ...replies.map(row),
        ...exponentRow('get(Json), peak memory', replies, MIB, EXPONENT_TARGET),
        row(pairs.at(-1)),
    ];
}

function textRows({texts, short}) {
    const pairs = byNumber(texts);
    const limit = short ? FAR_OFF : TEXT_TARGET;
    return [...new Set(pairs.map(({operation}) => operation))].flatMap((operation) => {
        const own = pairs.filter((pair) => pair.operation === operation);
        if (operation === 'errCode2Str') {
            return own.map((pair) => (
                {...pairRow('errCode2Str, against curl_easy_strerror', pair, limit), target: '', held: ''}));
        }
        return [
            ...own.map((pair) => pairRow(`${operation}, ${size(pair.detail)}`, pair, limit)),
            ...(short ? [] : exponentRow(operation, own, MIB / 64, EXPONENT_TARGET)),
        ];
    });
}

// Per server and number of threads: requests a second of both sides, and of each repetition the
// time ratio.
export function throughputs({threads}) {
    const servers = [...new Set(threads.map(({server}) => server))];
    const counts = [...new Set(threads.map((run) => run.threads))].sort((a, b) => a - b);
    return servers.flatMap((server) => counts.map((count) => {
        const rates = (side) => threads
            .filter((run) => run.server === server && run.threads === count && run.side === side)
            .sort((a, b) => a.repetition - b.repetition).map(({perSecond}) => perSecond);
        const [ours, bare] = [rates('ours'), rates('bare')];
        return {
            server, count, ours: median(ours), bare: median(bare),
            ratio: spread(ours.map((rate, i) => bare[i] / rate)),
        };
    }));
}

function threadRows(results) {
    const rates = throughputs(results);
    const rows = rates.map(({server, count, ours, bare, ratio}) => ratioRow(
        `${count} thread${count > 1 ? 's' : ''}, ${server}`, `${whole(ours)}/s`, `${whole(bare)}/s`,
        ratio, THREADS_TARGET));
    const waiting = rates.filter(({server}) => server === 'waiting server');
    if (waiting.length === 0) return rows;
    const [one, eight] = [waiting[0], waiting.at(-1)];
    const [ours, bare] = [eight.ours / one.ours, eight.bare / one.bare];
    return [...rows, exactRow(`${eight.count} threads against ${one.count}, waiting server`,
        `${ours.toFixed(2)} times`, `${bare.toFixed(2)} times`, (bare / ours).toFixed(3),
        `<= ${THREADS_TARGET}`, bare / ours <= THREADS_TARGET)];
}

function instructionRows({instructions, short}) {
    return instructions.flatMap(({operation, ours, bare}) => {
        const {own} = ours.instructions;
        const measure = operation === 'get(Json)';
        const what = measure ? `${operation} with four headers` : operation;
        const ratio = ours.total / bare.total;
        const row = exactRow(`${what}, instructions of the library`, whole(own), '', '',
            `< ${whole(INSTRUCTIONS_TARGET)}`, own > 0 && own < INSTRUCTIONS_TARGET);
        return [
            measure ? row : {...row, target: '', held: ''},
            ...(short ? [exactRow(`${what}, instructions of the process`, whole(ours.total),
                whole(bare.total), ratio.toFixed(3), `<= ${FAR_OFF}`, ratio <= FAR_OFF)] : []),
        ];
    });
}

function signInRows(results) {
    const limit = results.short ? SHARE_FAR_OFF : SHARE_TARGET;
    return signInSteps(results).map(({step, total, seconds}) => exactRow(
        `${step}: the library's share of ${time(total)}`, time(seconds.library), '',
        percent(seconds.library / total), `<= ${100 * limit} %`, seconds.library / total <= limit));
}

export function rows(results) {
    return [requestRows, instructionRows, replyRows, memoryRows, textRows, threadRows, signInRows]
        .flatMap((make) => make(results));
}

// ---- Sign-in -------------------------------------------------------------------------------------

// As signin.cpp names them; what the library leaves to others first.
export const PHASES = ['CA bundle', 'TLS', 'server', 'connect', 'name', 'libcurl', 'cookies', 'jsoncpp',
    'syslog', 'platform', 'library'];

// The processor time that the cloud spent on each request, by the step that it belonged to. The
// grants come after all sign-ins by the web flow, of which each makes the same five requests.
const CYCLE = ['login, web flow', 'login, web flow', 'login, web flow', 'exchange', 'refresh'];

function serverSeconds(requests, step) {
    const grants = requests.findIndex(({path}) => path.endsWith('_grant'));
    const spent = requests.map(({cpuSeconds}, i) => cpuSeconds - (requests[i - 1]?.cpuSeconds ?? 0));
    if (step === 'login, grant') return median(spent.slice(grants));
    const positions = CYCLE.flatMap((name, i) => (name === step ? [i] : []));
    return positions.map((position) => median(spent.slice(0, grants)
        .filter((_, i) => i % CYCLE.length === position))).reduce((a, b) => a + b);
}

// The means of those sign-ins whose total lies in the middle half, so that the parts add up.
export function signInSteps({signIn: {steps, requests}}) {
    return [...new Set(steps.map(({step}) => step))].map((step) => {
        const runs = steps.filter((run) => run.step === step)
            .sort((a, b) => sum(a.seconds) - sum(b.seconds));
        const middle = runs.slice(Math.floor(runs.length / 4), Math.ceil((runs.length * 3) / 4));
        const seconds = Object.fromEntries(PHASES.map((phase) =>
            [phase, mean(middle.map((run) => run.seconds[phase]))]));
        return {
            step,
            connections: middle[0].requests,
            seconds,
            total: sum(seconds),
            serverSeconds: serverSeconds(requests, step),
        };
    });
}
