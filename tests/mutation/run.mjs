#!/usr/bin/env node
// Changes the sources in many small ways, one at a time, and looks whether the unit tests notice.
//
// usage: tests/mutation/run.mjs [--jobs N] [--folder FOLDER] [PATTERN...]
//
// All mutants are compiled into one build, build/mutation, and switched by an environment variable.
// Each is tried with the tests that reach it, the quick ones first. FOLDER is one of those below.
// PATTERN is a part of the names of the mutants to try: "file: change: old => new". Ends with status 1
// when a mutant survives that equivalent.txt does not list, and when an entry of that list fits no
// mutant that survives.
import {execFile} from "node:child_process";
import fs from "node:fs";
import path from "node:path";
import {fileURLToPath} from "node:url";
import {parseArgs} from "node:util";

import {Source} from "./mutants.mjs";

const root = fs.realpathSync(fileURLToPath(new URL("../..", import.meta.url)));
const here = path.join(root, "tests/mutation");
const build = path.join(root, "build/mutation");
const folder = path.join(build, "mutants");
const scratch = path.join(build, "scratch");
const launcher = [path.join(here, "launcher"), root, folder];
// Each folder of sources with the programs that test it.
const PROGRAMS = {
    "src": ["tests/unit/unit_tests"],
    "platform/host": ["tests/platform/platform_test", "tests/platform/platform_faults_test"],
    "session/src": ["tests/session/unit/session_unit_tests"],
};
const QUICK_SECONDS = 0.1;
// What ends a mutant that loops. A test may start processes, which inherit the limits.
const LIMITS = ["--cpu=10:20", `--as=${1 << 30}`];
const LEAST_SECONDS = 20;
const MAX_MUTANTS = 1 << 16;

function run(command, args, options = {}) {
    return new Promise((resolve, reject) => {
        execFile(command, args, {maxBuffer: 1 << 28, killSignal: "SIGKILL", ...options}, (error, stdout, stderr) => {
            if (error?.signal === "SIGKILL" && !error.killed) {  // that says nothing about a mutant
                reject(new Error(`somebody killed ${command} ${args.join(" ")}`));
            }
            resolve({ok: !error, timedOut: Boolean(error?.killed) || error?.signal === "SIGXCPU", output: stdout + stderr});
        });
    });
}

async function require(command, args) {
    const {ok, output} = await run(command, args);
    if (!ok) {
        throw new Error(`${output}\n${command} ${args.join(" ")} failed`);
    }
    return output;
}

async function inParallel(jobs, items, work) {
    const queue = items.values();
    await Promise.all(Array.from({length: jobs}, async () => {
        for (const item of queue) {
            await work(item);
        }
    }));
}

function readSources(folders) {
    let number = 1;
    return folders.flatMap((name) => fs.readdirSync(path.join(root, name), {recursive: true})
            .filter((file) => /\.(?:h|cpp)$/.test(file)).sort().map((file) => path.join(name, file)))
        .map((file) => {
            const source = new Source(file, fs.readFileSync(path.join(root, file), "utf8"), number);
            number = source.nextNumber;
            return source;
        });
}

function writeMutants(sources, dropped) {
    for (const source of sources) {
        const file = path.join(folder, source.file);
        const text = source.withMutants(dropped, path.join(root, source.file));
        if (!fs.existsSync(file) || fs.readFileSync(file, "utf8") !== text) {
            fs.mkdirSync(path.dirname(file), {recursive: true});
            fs.writeFileSync(file, text);
        }
    }
}

// Leaves out what does not compile until all the rest does. Returns the numbers of what is left out.
async function compilable(jobs, sources) {
    const dropped = new Set();
    const commands = JSON.parse(fs.readFileSync(path.join(build, "compile_commands.json"), "utf8"))
        .filter(({file}) => sources.some((source) => file === path.join(root, source.file)));
    for (let pending = commands; pending.length > 0;) {
        writeMutants(sources, dropped);
        const before = dropped.size;
        const failing = [];
        await inParallel(jobs, pending, async (entry) => {
            const command = `${launcher.join(" ")} ${entry.command}`.replace(/ -o \S+/, " -fsyntax-only -fmax-errors=0");
            const {ok, output} = await run("sh", ["-c", command], {cwd: entry.directory});
            if (!ok) {
                failing.push(entry);
                const found = [...output.matchAll(/\bmutant-(\d+):/g)].map((match) => Number(match[1]));
                found.forEach((number) => dropped.add(number));
                if (found.length === 0) {
                    throw new Error(`${output}\n${entry.file} does not compile`);
                }
            }
        });
        if (failing.length > 0 && dropped.size === before) {
            throw new Error("what does not compile is left out already");
        }
        pending = failing;
    }
    writeMutants(sources, dropped);
    return dropped;
}

function start(program, tests, environment, timeout) {
    return run("prlimit", [...LIMITS, path.join(build, program), "--gtest_fail_fast",
        "--gtest_brief=1", `--gtest_filter=${tests.join(":")}`], {
        cwd: scratch, timeout: Math.ceil(timeout * 1000),
        env: {...process.env, TEST_TMPDIR: `${scratch}/`, HOME: scratch, ...environment},
    });
}

// Every test with its time and the mutants that it reaches.
async function traceTests(jobs, programs) {
    const tests = [];
    for (const program of programs) {
        const list = await require(path.join(build, program), ["--gtest_list_tests"]);
        let suite = "";
        for (const [, head, name] of list.matchAll(/^(?:(\S+\.)|  (\S+))/gm)) {
            suite = head ?? suite;
            if (name && !name.startsWith("DISABLED_")) {
                tests.push({program, name: suite + name});
            }
        }
    }
    await inParallel(jobs, [...tests.entries()], async ([index, test]) => {
        const file = path.join(scratch, `trace-${index}`);
        fs.writeFileSync(file, Buffer.alloc(MAX_MUTANTS));
        const begin = Date.now();
        const {ok, output} = await start(test.program, [test.name], {ORBA_MUTANT_TRACE: file}, 600);
        if (!ok) {
            throw new Error(`${output}\n${test.name} fails without any mutant`);
        }
        test.seconds = (Date.now() - begin) / 1000;
        test.reached = fs.readFileSync(file);
        fs.unlinkSync(file);
    });
    return tests;
}

// Returns "survived", "noticed" or "timed out".
async function tryMutant(number, tests, programs, quickOnly) {
    const reaching = tests.filter((test) => test.reached[number]);
    for (const quick of quickOnly ? [true] : [true, false]) {
        for (const program of programs) {
            const batch = reaching.filter((t) => t.program === program && (t.seconds < QUICK_SECONDS) === quick);
            if (batch.length > 0) {
                const seconds = batch.reduce((sum, test) => sum + test.seconds, 0);
                const {ok, timedOut} = await start(program, batch.map((test) => test.name),
                    {ORBA_MUTANT: String(number)}, Math.max(LEAST_SECONDS, 5 * seconds));
                if (!ok) {
                    return timedOut ? "timed out" : "noticed";
                }
            }
        }
    }
    return "survived";
}

// An entry is "file: change: old => new", where * fits anything, and below it, indented, the reason.
function readEquivalents() {
    const escaped = (text) => text.replace(/[.+?^${}()|[\]\\]/g, "\\$&").replaceAll("*", ".*");
    return fs.readFileSync(path.join(here, "equivalent.txt"), "utf8").split("\n")
        .filter((line) => /^[^#\s]/.test(line))
        .map((line) => ({line, pattern: new RegExp(`^${escaped(line.trim())}$`), used: false}));
}

async function main() {
    const {values, positionals} = parseArgs({allowPositionals: true, options: {
        jobs: {type: "string", default: "2"}, folder: {type: "string", multiple: true, default: Object.keys(PROGRAMS)},
    }});
    const programs = values.folder.flatMap((name) => PROGRAMS[name]);
    const jobs = Number(values.jobs);
    fs.rmSync(scratch, {recursive: true, force: true});
    fs.mkdirSync(scratch, {recursive: true});
    Object.keys(PROGRAMS).filter((name) => !values.folder.includes(name))
        .forEach((name) => fs.rmSync(path.join(folder, name), {recursive: true, force: true}));
    const sources = readSources(values.folder);
    const say = (text) => console.log(`${Math.round(performance.now() / 1000)} s: ${text}`);
    writeMutants(sources, new Set());
    await require("cmake", ["-S", root, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
        "-DCMAKE_CXX_FLAGS_DEBUG=-O0", `-DCMAKE_CXX_COMPILER_LAUNCHER=${launcher.join(";")}`]);
    const dropped = await compilable(jobs, sources);
    say(`leaves out ${dropped.size} that do not compile`);
    await require("ninja", ["-C", build, `-j${jobs}`, ...programs]);
    say("built");
    const tests = await traceTests(jobs, programs);
    say(`${tests.length} tests`);
    const equivalents = readEquivalents().filter(({line}) => values.folder.some((name) => line.startsWith(`${name}/`)));
    const found = sources.flatMap((source) => source.places).flatMap((place) => place.mutants).filter((m) => m.change);
    const wanted = found.filter((m) => !dropped.has(m.number) &&
        (positionals.length === 0 || positionals.some((p) => `${m.name} (line ${m.line})`.includes(p))));
    const counts = {"noticed": 0, "timed out": 0, "equivalent": 0, "survived": 0};
    await inParallel(jobs, wanted, async (mutant) => {
        const entry = equivalents.find(({pattern}) => pattern.test(mutant.name));
        let outcome = await tryMutant(mutant.number, tests, programs, Boolean(entry));
        if (outcome === "survived" && entry) {
            outcome = "equivalent";
            entry.used = true;
        }
        counts[outcome] += 1;
        if (outcome === "survived" || outcome === "timed out" || positionals.length > 0) {
            console.log(`${outcome}: ${mutant.name} (line ${mutant.line}, number ${mutant.number})`);
        }
    });
    const stale = positionals.length === 0 ? equivalents.filter(({used}) => !used) : [];
    stale.forEach(({line}) => console.log(`listed as equivalent, but no such mutant survives: ${line}`));
    fs.rmSync(scratch, {recursive: true});
    console.log(`tried ${wanted.length} mutants: ${counts.noticed + counts["timed out"]} noticed (${counts["timed out"]} of them by their time), ` +
        `${counts.survived} survived, ${counts.equivalent} equivalent; ${found.filter((m) => dropped.has(m.number)).length} more do not compile`);
    process.exitCode = counts.survived + stale.length === 0 ? 0 : 1;
}

await main();
