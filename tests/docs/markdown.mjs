// The documents, and what the tests take out of them.
import {readFileSync, readdirSync} from 'node:fs';
import {dirname, join} from 'node:path';
import {fileURLToPath} from 'node:url';

export const root = join(dirname(fileURLToPath(import.meta.url)), '../..');

export const read = (path) => readFileSync(join(root, path), 'utf8');

const markdownIn = (folder) => readdirSync(join(root, folder))
    .filter((name) => name.endsWith('.md')).map((name) => join(folder, name));

// Paths, as seen from the checkout.
export const documents = [
    ...markdownIn('.'), ...markdownIn('docs'), 'cloud/README.md', 'platform/README.md',
];

/** The fenced blocks of a document: {language, text, line}, the text without the list's indent. */
export function blocks(path) {
    const found = [];
    let open;
    read(path).split('\n').forEach((content, index) => {
        const fence = content.match(/^( *)```(.*)$/);
        if (!fence) {
            open?.lines.push(content.slice(open.indent));
        } else if (open) {
            found.push({language: open.language, line: open.line, text: open.lines.join('\n')});
            open = undefined;
        } else {
            open = {indent: fence[1].length, language: fence[2], line: index + 1, lines: []};
        }
    });
    if (open) throw new Error(`${path}:${open.line}: the fence is not closed`);
    return found;
}

/** The text of a document without its fenced blocks. */
export function prose(path) {
    return read(path).replace(/^( *)```[^]*?\n\1```$/gm, '');
}

/** The links of a document that lead to a file: {path, anchor}, the path as seen from the checkout. */
export function links(path) {
    return [...prose(path).matchAll(/\]\(([^)\s]+)\)/g)].map(([, target]) => target)
        .filter((target) => !/^[a-z]+:/.test(target))
        .map((target) => {
            const [file, anchor] = target.split('#');
            return {path: file ? join(dirname(path), file) : path, anchor, target};
        });
}

/** The anchors that GitHub and GitLab give a document's headings. */
export function anchors(path) {
    return [...prose(path).matchAll(/^#+ (.+)$/gm)].map(([, heading]) =>
        heading.toLowerCase().replace(/[^\p{L}\p{N}\s_-]/gu, '').replaceAll(' ', '-'));
}

/** The rows of the table that begins with the heading row `| first |...`, cells trimmed. */
export function table(path, first) {
    const lines = read(path).split('\n');
    const begin = lines.findIndex((line) => line.startsWith(`| ${first} |`));
    if (begin < 0) throw new Error(`${path} has no table that begins with "${first}"`);
    const rows = lines.slice(begin + 2);
    const end = rows.findIndex((line) => !line.startsWith('|'));
    return rows.slice(0, end < 0 ? undefined : end)
        .map((row) => row.split('|').slice(1, -1).map((cell) => cell.trim()));
}
