// The log of the device: what syslog() sends, as a log reader sees it.
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {createInterface} from 'node:readline';

const SOCKET = '/tmp/devlog.sock'; // what /dev/log is in the sandbox
const MESSAGE = /^<(\d+)>[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ([^:]+): ([^]*)$/;

// A message's priority and facility, the program that sent it, and its text.
function parse(hexadecimal) {
    const message = Buffer.from(hexadecimal, 'hex').toString();
    const [, number, program, text] = message.match(MESSAGE) ?? [];
    if (!number) throw new Error(`not a syslog message: ${message}`);
    return {priority: number & 7, facility: number >> 3, program, text};
}

// Opens the log. `take()` gives the messages since it was called last; a program's message is there
// as soon as its syslog() has returned.
export async function openLog() {
    const reader = spawn(process.env.ORBA_SYSLOG_RECEIVER, [SOCKET], {stdio: ['pipe', 'pipe', 'inherit']});
    const exited = once(reader, 'exit');
    const lines = createInterface({input: reader.stdout})[Symbol.asyncIterator]();

    async function nextLine() {
        const {value, done} = await lines.next();
        if (done) throw new Error('the syslog receiver has ended');
        return value;
    }

    async function take() {
        reader.stdin.write('.');
        const messages = [];
        for (let line = await nextLine(); line !== '.'; line = await nextLine()) {
            messages.push(parse(line));
        }
        return messages;
    }

    async function close() {
        reader.stdin.end();
        await exited;
    }

    await nextLine(); // that it is ready
    return {take, close};
}
