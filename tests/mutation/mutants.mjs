// Finds what to change in a C++ source, and writes the source with all its mutants, switched by
// mutation::on(). It reads tokens, not a syntax tree, and relies on clang-format's spacing (binary
// operators have blanks around them, template brackets have none). A mutant that makes no sense does
// not compile; run.mjs drops it.
const TOKEN = new RegExp([
    /\/\/[^\n]*|\/\*[^]*?\*\/|(?<=^|\n)[ \t]*#(?:\\\n|[^\n])*/,  // comments, directives
    /R"([^(]*)\([^]*?\)\1"|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])*'/,
    /\d[\w.']*|[A-Za-z_]\w*/,
    /->|::|\+\+|--|[<>=!]=|&&|\|\||[-+*/%&|^]=|<<|(?<= )>>|\S/,
].map((part) => part.source).join("|"), "g");
const CLOSING = {"(": ")", "[": "]", "{": "}"};
// Qualifiers, a type and a name or the names of a structured binding.
const DECLARATION = new RegExp(/^(?:(?:const|static|struct|thread_local|unsigned)\s+)*(?!(?:throw|delete|new|break|continue|return)\b)/.source +
    /[A-Za-z_][\w:]*(?:<[^;=]*>[\w:]*)?[\s*&]+(?:const\s+)?(?:\w+|\[[^\]]*\])\s*(?:\[[^\]]*\]\s*)*(?=[=({]|$)/.source);
const OTHER_OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="],
    ">=": [">", "<"], "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"],
    "%": ["*"], "+=": ["-="], "-=": ["+="], "|": ["&"], "&": ["|"], "<<": [">>"], ">>": ["<<"],
};
const CONTEXT = 40;
const CONSTANT = /^(?:k[A-Z]\w*|[A-Z][A-Z0-9]*_\w+|E[A-Z]{3,})$/;
// Conversions, whose argument is converted anyway, and keywords.
const NO_CALL = /^(?:[A-Z][a-z]\w*|(?:nano|milli)?seconds|string|string_view|move|if|while|for|switch|return|sizeof|catch|decltype|alignof|operator|throw|new|delete|noexcept)$/;

const squeeze = (text) => text.replace(/\/\/[^\n]*/g, "").replace(/\s+/g, " ").trim();

// "old => new", cut down to where they differ. The layout of the source makes no difference.
function difference(before, after) {
    const [a, b] = [before, after].map(squeeze);
    let [begin, end] = [0, 0];
    while (begin < Math.min(a.length, b.length) && a[begin] === b[begin]) {
        ++begin;
    }
    while (end < Math.min(a.length, b.length) - begin && a.at(-1 - end) === b.at(-1 - end)) {
        ++end;
    }
    const cut = (text) => [begin > CONTEXT ? "..." : "", text.slice(Math.max(0, begin - CONTEXT), text.length - end + CONTEXT),
        end > CONTEXT ? "..." : ""].join("");
    return `${cut(a)} => ${cut(b)}`;
}

function tokenize(text) {
    const tokens = [];
    for (const {0: token, index} of text.matchAll(TOKEN)) {
        if (!/^(?:\/\/|\/\*|\s*#)/.test(token)) {
            tokens.push({text: token, start: index, end: index + token.length});
        }
    }
    const open = [];
    for (const [i, token] of tokens.entries()) {
        const before = text[token.start - 1];
        if (CLOSING[token.text] || (token.text === "<" && /[\w]/.test(before))) {
            open.push(i);
        } else if (/^[)\]}]$/.test(token.text)) {
            while (CLOSING[tokens[open.at(-1)].text] !== token.text) {
                open.pop();  // a "<" that was no bracket
            }
            tokens[open.at(-1)].close = i;
            open.pop();
        } else if (token.text === ">" && before !== " " && tokens[open.at(-1)]?.text === "<") {
            tokens[open.pop()].close = i;
        }
    }
    return tokens;
}

// `places` are the expressions and statements that hold mutants: {kind, start, end, mutants}.
export class Source {
    constructor(file, text, nextNumber) {
        Object.assign(this, {file, text, nextNumber, places: [], context: [0, 0], notConstant: [], tokens: tokenize(text)});
        this.exceptions = [...new Set(text.match(/\b(?!what)[A-Z]\w*Exception\b/g))];
        this.arrays = new Set([...text.matchAll(/\b(k[A-Z]\w*)\[/g)].map((match) => match[1]));
        this.declarations(0, this.tokens.length);
    }

    is(i, ...texts) {
        return texts.includes(this.tokens[i]?.text);
    }
    slice(from, to) {
        return this.text.slice(this.tokens[from].start, this.tokens[to - 1].end);
    }
    // The index of the first of these tokens outside of brackets, or `to`.
    find(from, to, ...texts) {
        let i = from;
        while (i < to && !this.is(i, ...texts)) {
            i = (this.tokens[i].close ?? i) + 1;
        }
        return Math.min(i, to);
    }

    // --- the grammar, as far as it is needed ---

    // Namespaces, classes and what they declare.
    declarations(from, to) {
        for (let i = from; i < to;) {
            let end = this.find(i, to, ";", "{", "=");
            if (this.is(end - 1, "operator")) {
                end = this.find(end + 1, to, ";", "{");
            }
            const head = end > i ? this.slice(i, end) : "";
            if (this.is(end, "=")) {
                const semicolon = this.find(end, to, ";");
                this.context = [this.tokens[i].start, this.tokens[semicolon].end];
                if (!/\b(?:constexpr|using|operator)\b/.test(head)) {
                    this.expression(end + 1, semicolon);
                }
                i = semicolon + 1;
            } else if (this.is(end, "{")) {
                const close = this.tokens[end].close;
                if (/\b(?:namespace|class|struct|extern)\b(?: __attribute__\(.*\))?[^()]*$/.test(head) && !/struct \w+ \w+ $/.test(head)) {
                    this.declarations(end + 1, close);
                } else if (/\)/.test(head)) {
                    this.constructorList(i, end);
                    this.block(end);
                } else if (!/\benum\b/.test(head)) {
                    this.list(end);
                    if (this.is(i, "constexpr")) {
                        this.notConstant.push(this.tokens[i]);
                    }
                }
                i = close + 1;
            } else {
                i = end + 1;
            }
        }
    }
    // ": member(value), member(value)" before a constructor's body.
    constructorList(from, body) {
        for (let i = this.find(from, body, ":"); i < body; ++i) {
            if (this.tokens[i].close && !this.is(i, "<")) {
                this.list(i);
                i = this.tokens[i].close;
            }
        }
    }
    block(open) {
        const {close} = this.tokens[open];
        let before = null;
        for (let i = open + 1; i < close;) {
            const begin = i;
            i = this.statement(i);
            const place = this.places.find((p) => p.kind === "statement" && p.first === begin);
            if (place && before) {
                this.swapStatements(before, place);
            }
            before = place;
        }
    }
    // Returns the index behind the statement.
    statement(i) {
        const {length} = this.tokens;
        if (this.is(i, "{")) {
            this.block(i);
            return this.tokens[i].close + 1;
        }
        if (this.is(i, "if", "while", "switch", "for")) {
            const open = this.is(i + 1, "constexpr") ? i + 2 : i + 1;
            const {close} = this.tokens[open];
            const parts = [];  // up to the semicolons, or the colon of a range
            for (let from = open + 1; from <= close; from = parts.at(-1)[1] + 1) {
                parts.push([from, this.find(from, close, ";", ...(this.is(i, "for") ? [":"] : []))]);
            }
            const condition = this.is(i, "for") ? 1 : parts.length - 1;
            const isRange = this.is(i, "for") && parts.length === 2;
            parts.slice(0, condition).forEach(([from, to]) => isRange || this.simple(from, to, false));
            this.context = [this.tokens[i].start, this.tokens[close].end];
            parts.slice(condition).forEach(([from, to], n) =>
                this.expression(from, to, n === 0 && !isRange && !this.is(i, "switch")));
            const end = this.statement(close + 1);
            return this.is(end, "else") ? this.statement(end + 1) : end;
        }
        if (this.is(i, "try")) {
            return this.statement(i + 1);
        }
        if (this.is(i, "catch")) {
            const open = this.tokens[i + 1].close + 1;
            this.place("handler", open, open + 1, this.is(open + 1, "throw") ? [] : [["handler removed", "throw;"]]);
            return this.statement(open);
        }
        if (this.is(i, "case", "default")) {
            return this.find(i, length, ":") + 1;
        }
        const end = this.find(i, length, ";");
        if (this.is(i, "struct", "class") && this.find(i, length, "{") < end) {
            this.declarations(i, end + 1);
        } else {
            this.simple(i, end, true);
        }
        return end + 1;
    }
    // A declaration, "return", or an expression with its semicolon.
    simple(from, end, isStatement) {
        const head = end > from ? this.slice(from, end) : "";
        if (/^(?:using|static_assert|typedef|static constexpr|constexpr)\b/.test(head)) {
            return;
        }
        const outer = this.context;
        this.context = [this.tokens[from].start, this.tokens[end].end];
        const declared = this.declared(from, end);
        if (this.is(from, "return")) {
            if (end > from + 1 && !/^return (?:\{\}|nullptr|false|0|""|milliseconds\(0\))$/.test(head)) {
                this.place("return", from, end + 1, [["empty result", "return {};"]]);
            }
            this.expression(from + 1, end);
        } else if (!declared) {
            if (isStatement) {
                this.place("statement", from, end + 1, [["deleted", ";"]]);
            }
            this.expression(from, end, false, isStatement);
        } else if (this.is(declared, "=")) {
            this.expression(declared + 1, end);
        } else if (this.tokens[declared].close) {
            this.list(declared);
        }
        this.context = outer;
    }
    // The index of what follows the declared name; 0 for what is no declaration.
    declared(from, end) {
        const match = end > from && DECLARATION.exec(this.slice(from, end));
        const behind = match && this.tokens[from].start + match[0].length;
        return match ? this.tokens.findIndex(({start}, i) => i === end || (i > from && start >= behind)) : 0;
    }
    // What stands between brackets. Returns the bounds of its parts.
    list(open) {
        const {close} = this.tokens[open];
        const parts = [];
        for (let i = open + 1; i < close;) {
            const end = this.find(i, close, ",");
            this.expression(i, end);
            parts.push([i, end]);
            i = end + 1;
        }
        return parts;
    }
    isLambda(i) {
        return this.is(i, "[") && !/^(?:[\w)\]]+)$/.test(this.tokens[i - 1].text.replace(/^return$/, "="));
    }
    expression(from, to, isCondition = false, isStatement = false) {
        if (from >= to) {
            return;
        }
        let changes = isCondition && !this.isComparison(from, to) ? [["negated", `!(${this.slice(from, to)})`]] : [];
        const edit = (kind, first, last, text) =>
            changes.push([kind, this.edited(from, to, first, last, text)]);
        const hasLambda = this.tokens.slice(from, to).some((_, i) => this.isLambda(from + i));
        for (let i = from; i < to; ++i) {
            if (this.isLambda(i)) {
                i = this.find(this.tokens[i].close + 1, to, "{");
                this.block(i);
                i = this.tokens[i].close;
                continue;
            }
            this.mutateToken(i, from, edit);
            if (this.is(i, "<") && this.tokens[i].close) {
                for (let k = i + 1; k < this.tokens[i].close; ++k) {
                    this.mutateException(k, edit);
                }
                i = this.tokens[i].close;
            } else if (this.tokens[i].close) {
                this.mutateList(i, from, isStatement ? to : 0, edit);
                i = this.tokens[i].close;
            }
        }
        if (hasLambda) {  // which cannot be in a decltype()
            changes = changes.filter(([kind]) => kind !== "dropped call" && kind !== "swapped arguments");
        }
        this.place("expression", from, to, changes).hasLambda = hasLambda;
    }
    // Whose other operator, or removed "!", negates it as well.
    isComparison(from, to) {
        return this.find(from, to, "&&", "||") === to &&
            (this.is(from, "!") || this.find(from, to, "==", "!=", "<", "<=", ">", ">=") < to);
    }
    mutateList(open, from, endOfStatement, edit) {
        const {close} = this.tokens[open];
        const parts = this.list(open);
        for (let p = 1; p < parts.length; ++p) {
            const [a, b] = [this.slice(...parts[p - 1]), this.slice(...parts[p])];
            if (a !== b && !this.is(parts[p][0], "{")) {
                edit("swapped arguments", parts[p - 1][0], parts[p][1], `${b}, ${a}`);
            }
        }
        const name = this.tokens[open - 1]?.text ?? "";
        // A call that is a whole statement is deleted as such.
        if (!this.is(open, "(") || open === from || close + 1 === endOfStatement ||
            !/^[a-zA-Z_]\w*$/.test(name) || NO_CALL.test(name)) {
            return;
        }
        let first = open - 1;
        if (this.is(first - 1, ".", "->") && first > from) {
            edit("dropped call", first - 1, close + 1, "");
            return;
        }
        while (first - 2 >= from && this.is(first - 1, "::")) {
            first -= 2;
        }
        first -= first > from && this.is(first - 1, "::") ? 1 : 0;
        if (parts.length > 0) {
            edit("dropped call", first, close + 1, `(${this.slice(...parts[0])})`);
        }
    }
    mutateException(i, edit) {
        const other = this.exceptions.indexOf(this.tokens[i].text) + 1;
        if (other > 0 && this.exceptions.length > 1) {
            edit("other class", i, i + 1, this.exceptions[other % this.exceptions.length]);
        }
    }
    mutateToken(i, from, edit) {
        const {text, start, end} = this.tokens[i];
        const spaced = /\s/.test(this.text[start - 1]) && /\s/.test(this.text[end]);
        const to = (kind, ...others) => others.forEach((other) => edit(kind, i, i + 1, other));
        if (OTHER_OPERATORS[text] && spaced && i > from) {
            to("other operator", ...OTHER_OPERATORS[text]);
        } else if (text === "++" || text === "--") {
            to("other operator", text === "++" ? "--" : "++");
        } else if (text === "!") {
            to("negated", "");
        } else if (text === "true" || text === "false") {
            to("other constant", String(text === "false"));
        } else if (/^\d/.test(text)) {
            to("other constant", `(${text} + 1)`, `(${text} - 1)`);
        } else if (text.endsWith('"')) {
            to("other text", `${text.slice(0, -1)}~"`, ...(text === '""' ? [] : ['""']));
        } else if (text.startsWith("'")) {
            to("other text", `char(${text} + 1)`);
        } else if (CONSTANT.test(text) && !this.is(i + 1, "(", ".", "::", "{", "<")) {
            to("other constant", this.arrays.has(text) ? `(${text} + 1)` : `static_cast<decltype(${text})>(${text} + 1)`);
        } else {
            this.mutateException(i, edit);
        }
    }

    // --- what is found ---

    // The text of [from, to) with [first, last) replaced, as many lines long as before.
    edited(from, to, first, last, replacement) {
        const {tokens, text} = this;
        const old = this.slice(first, last);
        const lost = old.split("\n").length - replacement.split("\n").length;
        return text.slice(tokens[from].start, tokens[first].start) + replacement +
            "\n".repeat(Math.max(lost, 0)) + text.slice(tokens[last - 1].end, tokens[to - 1].end);
    }
    place(kind, first, last, changes) {
        const [start, end] = [this.tokens[first].start, this.tokens[last - 1].end];
        const line = this.text.slice(0, start).split("\n").length;
        const place = {kind, first, start, end, line, mutants: []};
        changes.forEach(([change, text]) => this.mutant(place, change, text));
        if (changes.length > 0) {
            this.places.push(place);
        }
        return place;
    }
    mutant(place, change, text, number = this.nextNumber++) {
        const name = `${this.file}: ${change}: ${difference(...this.inContext(place, text))}`;
        place.mutants.push({number, line: place.line, change, text, name});
        return number;
    }
    // The statement that the place is a part of, before and after.
    inContext({start, end}, text) {
        const [from, to] = this.context;
        const outer = from <= start && end <= to ? [this.text.slice(from, start), this.text.slice(end, to)] : ["", ""];
        return [this.text.slice(start, end), text].map((inner) => outer.join(inner));
    }
    swapStatements(one, two) {
        const [first, second] = [one, two].map((place) => this.text.slice(place.start, place.end));
        if (first !== second) {
            const number = this.mutant(one, "swapped statements", `${second} ${first}`);
            this.mutant(two, "", ";", number);
        }
    }
    typeOf({start, end}) {
        const text = this.text.slice(start, end);
        return /^(?:\s*"(?:\\.|[^"\\])*")+$/.test(text) || this.arrays.has(text) ? "const char*" : `decltype((${text}))`;
    }
    // Each mutant is, to the compiler, in a file "mutant-NUMBER": a message names those it is about.
    // Lines keep their numbers, because some tests look at them.
    withMutants(dropped, path) {
        const insertions = [];
        for (const place of this.places) {
            const mark = (name) => `\n#line ${place.line} "${name}"\n`;
            // Of the original's type, so that a mutant of another one is a fault in its own lines.
            const typed = ({text}) => place.kind !== "expression" || place.hasLambda ? text : `static_cast<${this.typeOf(place)}>(${text})`;
            const arms = place.mutants.filter(({number}) => !dropped.has(number)).map((mutant) =>
                [`mutation::on(${mutant.number})`, `${mark(`mutant-${mutant.number}`)}${typed(mutant)}${mark(path)}`]);
            const join = (write) => arms.map(([on, text]) => write(on, text)).join("");
            const [before, after] = arms.length === 0 ? ["", ""] : {
                expression: [`(${join((on, text) => `${on} ? ${text}: `)}`, ")"],
                statement: [`{ ${join((on, text) => `if (${on}) {${text}} else `)}`, " }"],
                return: [`{ ${join((on, text) => `if (${on}) {${text}}`)}`, " }"],
                handler: ["", join((on, text) => ` if (${on}) {${text}}`)],
            }[place.kind];
            // At one offset what ends comes before what begins, and the inner ends first and begins last.
            const isInner = place.kind === "expression";
            insertions.push({at: place.start, order: [1, -place.end, isInner], text: before});
            insertions.push({at: place.end, order: [0, -place.start, !isInner], text: after});
        }
        for (const {start, end} of this.notConstant) {
            insertions.push({at: start, order: [1, 0, 0], text: "const /*"});
            insertions.push({at: end, order: [0, 0, 0], text: "*/"});
        }
        insertions.sort((a, b) => a.at - b.at || a.order[0] - b.order[0] || a.order[1] - b.order[1] || a.order[2] - b.order[2]);
        let [out, at] = [`#line 1 "${path}"\n`, 0];
        for (const insertion of insertions) {
            out += this.text.slice(at, insertion.at) + insertion.text;
            ({at} = insertion);
        }
        return out + this.text.slice(at);
    }
}
