// The documents agree with the tree: links, code, tables, names.
import assert from 'node:assert/strict';
import {existsSync, readdirSync} from 'node:fs';
import {join} from 'node:path';
import {test} from 'node:test';

import {anchors, blocks, documents, links, read, root, table} from './markdown.mjs';

const LANGUAGES = ['c++', 'cmake', 'console', 'ini', 'js', 'json', 'mermaid', 'sh', 'text', ''];

// C++ that a document quotes is compiled, and what is compiled here is run by other tests.
const compiled = ['examples/fleet-lens', 'examples/step-by-step', 'docs/my-service'].flatMap((folder) =>
    readdirSync(join(root, folder)).filter((name) => /\.(cpp|h)$/.test(name))
        .map((name) => read(`${folder}/${name}`)));

for (const path of documents) {
    test(`${path}: links lead somewhere`, () => {
        for (const {path: file, anchor, target} of links(path)) {
            assert.ok(existsSync(join(root, file)), `there is no ${target}`);
            if (anchor) assert.ok(anchors(file).includes(anchor), `no heading for ${target}`);
        }
    });

    test(`${path}: scripts that it names exist`, () => {
        for (const [name] of read(path).matchAll(/\bscripts\/[a-z][a-z-]*/g)) {
            assert.ok(existsSync(join(root, name)), `there is no ${name}`);
        }
    });

    test(`${path}: blocks are of a known kind`, () => {
        for (const {language, line} of blocks(path)) {
            assert.ok(LANGUAGES.includes(language), `line ${line}: "${language}"`);
        }
    });

    test(`${path}: C++ is quoted as it is compiled`, () => {
        for (const {language, text, line} of blocks(path)) {
            if (language !== 'c++') continue;
            const quoted = compiled.some((source) => `\n${source}`.includes(`\n${text}\n`));
            assert.ok(quoted, `line ${line} is in no compiled file:\n${text}`);
        }
    });

    test(`${path}: JSON can be parsed`, () => {
        for (const {language, text} of blocks(path)) {
            if (language === 'json') JSON.parse(text);
        }
    });
}

test('the guide shows the CMakeLists.txt that it copies', () => {
    const shown = blocks('docs/guide.md').filter(({language}) => language === 'cmake');
    assert.deepEqual(shown.map(({text}) => `${text}\n`), [read('docs/my-service/CMakeLists.txt')]);
});

// One row of errors.h: "/// |  1 | Unexpected exception happened. |".
const messages = [...read('include/orbaoauth2client/errors.h')
    .matchAll(/^\/\/\/ \| +(\d+) \| (.+) \|$/gm)].map(([, code, text]) => [Number(code), text]);

test('units that documents quote are those of the example', () => {
    const unit = read('examples/fleet-lens/fleet-lens.service').split('\n');
    for (const path of documents) {
        for (const {language, text, line} of blocks(path)) {
            if (language !== 'ini' || !text.startsWith('[Service]')) continue;
            const strange = text.split('\n').filter((setting) => !unit.includes(setting));
            assert.deepEqual(strange, [], `${path}, line ${line}`);
        }
    }
});

test("the headers' table has the messages of the library", () => {
    const [, names] = read('src/error_code.h').match(/enum ErrorCode : int \{([^}]+)\}/);
    const codes = new Map([...names.matchAll(/(k\w+) = (\d+)/g)].map(([, name, code]) => [name, Number(code)]));
    const inCode = [...read('src/utils.cpp').matchAll(/\{(k\w+), "(.+)"\},/g)]
        .map(([, name, text]) => [codes.get(name), text]);
    assert.equal(inCode.length, 33);
    assert.deepEqual(messages, inCode);
});

test('the guide explains every error code', () => {
    const explained = table('docs/guide.md', 'Code').flatMap(([cell]) => cell.split(', ').map(Number));
    assert.deepEqual([...new Set(explained)].sort((a, b) => a - b), messages.map(([code]) => code));
});

test('the host edition reads every member of the device profile', () => {
    const [{text}] = blocks('platform/README.md').filter(({language}) => language === 'json');
    const sources = readdirSync(join(root, 'platform/host'), {recursive: true})
        .filter((name) => name.endsWith('.cpp')).map((name) => read(`platform/host/${name}`)).join('');
    const names = (value) => Object.entries(value).flatMap(([name, inner]) =>
        (typeof inner === 'string' ? [name] : [name, ...names(inner)]));
    for (const name of names(JSON.parse(text))) assert.match(sources, new RegExp(`[".]${name}"`));
});

test('the cloud has the options that the guide uses', () => {
    const options = new Set([...read('cloud/cloud.mjs').matchAll(/^ {4}'([a-z-]+)(?: [A-Z]+)?': '/gm)]
        .map(([, name]) => `--${name}`));
    assert.ok(options.size > 10);
    const [, section] = read('docs/guide.md').match(/\n## Test a service of your own\n([^]+?)(?:\n## |$)/);
    for (const [option] of section.matchAll(/(?<=`)--(?!shell)[a-z-]+/g)) {
        assert.ok(options.has(option), `the cloud has no ${option}`);
    }
});
