"use strict";
// What is looked at stands behind the # of the address: going back goes back, and a link can be kept.
// Whatever the network said is put on the page as text, never as markup.

const ROWS_MAX = 200; // of one answer
const AROUND = 30; // rows that are kept above and below what is seen
const SECONDS = 600; // of the course
const LEGEND_PX = 34; // of the plot's height
const AGAIN_MS = 200; // an answer ends after some minutes, and the next one goes on with it
const RETRY_MS = 3000; // where that ends at once, too
const PATIENCE_MS = 2500; // before it is said that nobody answers
const BARS_MS = 60000; // until they are read anew
const BUSY_MS = 10000; // until what couldn't be read is
const SETTLE_MS = 250; // after the last turn of the wheel

const byId = (id) => document.getElementById(id);

// --- Texts ---------------------------------------------------------------------------------------

// Characters that aren't seen, as those that turn the direction of what follows.
const UNSEEN = /[\p{Cc}\p{Cf}\p{Co}\p{Cs}\p{Zl}\p{Zp}\u034f\u115f\u1160\u3164\uffa0]/gu;
const shown = (text) => String(text ?? "").replace(UNSEEN, "?");

function sizeText(bytes) {
    const units = ["B", "kB", "MB", "GB", "TB", "PB", "EB"];
    let amount = bytes;
    let unit = 0;
    while (amount >= 999.5 && unit + 1 < units.length) {
        amount /= 1000;
        ++unit;
    }
    return `${unit === 0 || amount >= 99.95 ? Math.round(amount) : amount.toFixed(1)} ${units[unit]}`;
}
const rateText = (rate) => `${sizeText(rate)}/s`;

function timeText(us) {
    if (!us)
        return "-";
    const at = new Date(us / 1000);
    const two = (number) => String(number).padStart(2, "0");
    return `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())} ` +
        `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
}

const counted = (count, many) => `${count} ${count === 1 ? many.slice(0, -1) : many}`;
const applicationText = (name) => name === "" ? "unnamed" : shown(name);
const clientText = (row) => shown(row.name || row.client);
const droppedText = (row) => String(row.dropped[0] + row.dropped[1]);

// --- Tables --------------------------------------------------------------------------------------

const amounts = (more) => [
    {head: "Down now", text: (row) => rateText(row.down_rate), order: "rate", kind: "number"},
    {head: "Up now", text: (row) => rateText(row.up_rate), kind: "number minor"},
    {head: "Down", text: (row) => sizeText(row.down[1]), order: "bytes", kind: "number"},
    {head: "Up", text: (row) => sizeText(row.up[1]), kind: "number minor"},
    ...more,
    {head: "Dropped", text: droppedText, order: "dropped", kind: "number minor"},
    {head: "Last seen", text: (row) => timeText(row.last_us), order: "last", kind: "time minor"},
];
const flowNames = [
    {head: "Client", text: clientText, kind: "wide"},
    {head: "Application", text: (row) => applicationText(row.application), order: "name", kind: "wide"},
    {head: "Server", text: (row) => shown(row.host || row.server), kind: "wide minor"},
];
const verdict = {
    head: "Verdict",
    text: (row) => shown(row.verdict) + (row.ended ? `, ended (${shown(row.ended)})` : ""),
    kind: (row) => row.verdict.startsWith("deny") ? "denied" : "",
};

// What happened to no flow: of what, and to which state.
const EVENTS = {
    "daemon gone": () => "the daemon is gone",
    "daemon back": () => "the daemon is back",
    "gate open": () => "the gate is open: nobody decides, and everything passes",
    "gate closed": () => "the gate is closed: nobody decides, and nothing undecided passes",
    "gate deciding": () => "the gate does what is decided",
    "gate attached": (where) => `the gate stands at ${where}`,
    "gate gone": (where) => `the gate at ${where} is gone`,
    "policies ": () => "the policies changed, or what else verdicts depend on",
};

function eventText(row) {
    const name = `${row.what} ${row.state}`;
    return Object.hasOwn(EVENTS, name) ? EVENTS[name](shown(row.interface)) : shown(name);
}

// Who of those that judge a flow is missing; nothing where all are there.
function troubleText(state) {
    if (!state.told)
        return `avcore doesn't tell: ${shown(state.trouble || "it is asked again and again")}`;
    const troubles = [state.daemon === "gone" ? "daemon gone" : "",
                      ["open", "closed"].includes(state.gate) ? `gate ${state.gate}` : ""];
    return [...troubles.filter((name) => name).map((name) => EVENTS[name]()),
            ...(state.left_out ? [`${counted(state.left_out, "messages")} left out`] : [])].join("; ");
}

// `open` says what Enter leads to: another look, or what a row is of in full.
const TABLES = {
    clients: {
        title: "Clients", order: "rate",
        columns: [
            {head: "Client", text: clientText, order: "name", kind: "wide"},
            {head: "Address", kind: "wide minor",
             text: (row) => shown((row.addresses || [])[0] || row.client) +
                 ((row.addresses || []).length > 1 ? ` +${row.addresses.length - 1}` : "")},
            ...amounts([{head: "Flows", text: (row) => String(row.flows), order: "flows", kind: "number minor"}]),
        ],
        key: (row) => row.client,
        open: (row, look) => ({...look, client: row.client,
                               table: look.application === null ? "applications" : "flows"}),
    },
    applications: {
        title: "Applications", order: "rate",
        columns: [
            {head: "Application", text: (row) => applicationText(row.application), order: "name", kind: "wide"},
            ...amounts([{head: "Flows", text: (row) => String(row.flows), order: "flows", kind: "number minor"}]),
        ],
        key: (row) => row.application,
        open: (row, look) => ({...look, application: row.application,
                               table: look.client === null ? "clients" : "flows"}),
    },
    flows: {
        title: "Flows", order: "rate",
        columns: [...flowNames, verdict, ...amounts([])],
        key: (row) => row.id,
        isOfFlows: true,
    },
    denials: {
        title: "Denials", order: "last",
        columns: [
            {head: "When", text: (row) => timeText(row.us), kind: "time"},
            ...flowNames,
            {head: "Why", text: (row) => shown(row.why), kind: () => "wide denied"},
        ],
        key: (row) => row.number,
        isOfFlows: true,
    },
    events: {
        title: "Events", order: "last",
        columns: [
            {head: "When", text: (row) => timeText(row.us), kind: "time"},
            {head: "What", text: eventText, kind: "wide"},
        ],
        key: (row) => row.number,
    },
};
const VERDICTS = ["", "none", "allow", "white list", "deny", "rate limit", "qos"];

// --- What is looked at ---------------------------------------------------------------------------

function lookOf(hash) {
    const words = new URLSearchParams(hash.replace(/^#/, ""));
    const table = Object.hasOwn(TABLES, words.get("table")) ? words.get("table") : "clients";
    const isOrder = TABLES[table].columns.some((column) => column.order && column.order === words.get("order"));
    return {
        table,
        client: words.get("client"),
        application: words.get("application"),
        order: isOrder ? words.get("order") : TABLES[table].order,
        reversed: words.get("reversed") === "1",
        part: words.get("part") || "",
        verdict: VERDICTS.includes(words.get("verdict")) ? words.get("verdict") : "",
        span: ["hour", "day"].includes(words.get("span")) ? words.get("span") : "now",
    };
}

function wordsOf(look) {
    const words = new URLSearchParams({table: look.table});
    for (const name of ["client", "application"]) {
        if (look[name] !== null)
            words.set(name, look[name]);
    }
    if (look.order !== TABLES[look.table].order)
        words.set("order", look.order);
    if (look.reversed)
        words.set("reversed", "1");
    if (look.part)
        words.set("part", look.part);
    if (look.verdict && look.table === "flows")
        words.set("verdict", look.verdict);
    return words;
}

function hashOf(look) {
    const words = wordsOf(look);
    if (look.span !== "now")
        words.set("span", look.span);
    return `#${words}`;
}

// Another table of the same. What a table is of itself isn't chosen there, and nothing of events.
function turnTo(look, table) {
    return {...look, table, order: TABLES[table].order, reversed: false, part: "", verdict: "",
            client: ["clients", "events"].includes(table) ? null : look.client,
            application: ["applications", "events"].includes(table) ? null : look.application};
}

function choiceOf(look) {
    const words = new URLSearchParams();
    for (const name of ["client", "application"]) {
        if (look[name] !== null)
            words.set(name, look[name]);
    }
    return words;
}

let look = lookOf(location.hash);

const go = (next) => {
    location.hash = hashOf(next);
};
const amend = (next) => { // without a step to go back to
    history.replaceState(null, "", hashOf(next));
    apply();
};

// Throws what a refusal says.
async function ask(path, words, signal) {
    const answer = await fetch(`${path}?${words}`, {signal, cache: "no-store"});
    if (answer.ok)
        return answer;
    const text = (await answer.text()).trim();
    const isJson = answer.headers.get("Content-Type")?.startsWith("application/json");
    throw new Error((isJson ? JSON.parse(text).error : text) || `${answer.status}`);
}
const askJson = async (path, words, signal) => (await ask(path, words, signal)).json();

function make(tag, text, attributes = {}) {
    const made = document.createElement(tag);
    made.textContent = text;
    for (const [name, value] of Object.entries(attributes))
        made.setAttribute(name, value);
    return made;
}

function setText(element, text) {
    if (element.textContent !== text)
        element.textContent = text;
}

function say(text, isBad) {
    setText(byId("state"), text);
    byId("state").classList.toggle("bad", isBad);
}

// --- The table -----------------------------------------------------------------------------------
// Of all rows only those that are seen are in the document; a row's element serves another row when
// the table is scrolled.

const grid = {
    rowHeight: 0,
    total: 0,
    first: 0, // of `rows`
    rows: [],
    active: 0,
    elements: new Map(), // by the place of the row that each shows
    spare: [],
    asking: null, // what cancels the question for rows
    settling: 0,
    headsOf: "",

    // No more than a window reaches over: of a screen that is higher the rest stays empty.
    seen() {
        const scroll = byId("scroll");
        const first = Math.floor(scroll.scrollTop / this.rowHeight);
        const rows = Math.min(ROWS_MAX - AROUND, Math.ceil(scroll.clientHeight / this.rowHeight) + 1);
        return {first, last: Math.min(this.total, first + rows)};
    },

    window() {
        const {first} = this.seen();
        const height = Math.ceil(byId("scroll").clientHeight / this.rowHeight);
        return {first: Math.max(0, first - AROUND), rows: Math.min(ROWS_MAX, height + 2 * AROUND)};
    },

    begin() {
        const probe = byId("space").appendChild(make("div", "", {class: "row"}));
        this.rowHeight = probe.getBoundingClientRect().height;
        probe.remove();
        this.total = this.first = this.active = 0;
        this.rows = [];
        for (const element of this.elements.values())
            element.remove();
        this.elements.clear();
        this.spare = []; // of another table's columns
        byId("scroll").scrollTop = 0;
        this.heads();
        this.paint();
    },

    // Those that are there stay, and with them the keyboard's focus.
    heads() {
        const {columns} = TABLES[look.table];
        if (this.headsOf !== look.table) {
            this.headsOf = look.table;
            byId("heads").replaceChildren(...columns.map((column) => this.newHead(column)));
        }
        columns.forEach((column, i) => {
            const cell = byId("heads").children[i];
            const isOrder = column.order === look.order;
            setText(cell, column.head + (isOrder ? (look.reversed ? " ▲" : " ▼") : ""));
            if (isOrder)
                cell.setAttribute("aria-sort", (column.order === "name") === look.reversed ? "descending" : "ascending");
            else
                cell.removeAttribute("aria-sort");
        });
    },

    newHead({order, kind}) {
        const cell = make(order ? "button" : "div", "",
                          {class: `cell ${typeof kind === "string" ? kind : ""}`, role: "columnheader"});
        if (order) {
            cell.type = "button";
            cell.addEventListener("click", () => amend({...look, order, reversed: order === look.order && !look.reversed}));
        }
        return cell;
    },

    take(table) {
        // At the top the place stays chosen; elsewhere the row, as long as it is in the window.
        const before = this.rows[this.active - this.first];
        this.total = table.total;
        this.first = table.first;
        this.rows = table.rows;
        if (before) {
            const key = TABLES[look.table].key;
            const place = this.rows.findIndex((row) => key(row) === key(before));
            if (place >= 0 && this.active > 0)
                this.active = this.first + place;
        }
        this.active = Math.min(this.active, Math.max(0, this.total - 1));
        setText(byId("total"), counted(this.total, TABLES[look.table].title.toLowerCase()));
        this.paint();
    },

    element(place) {
        const present = this.elements.get(place);
        if (present)
            return present;
        const element = this.spare.pop() || this.newElement();
        this.elements.set(place, element);
        element.style.transform = `translateY(${place * this.rowHeight}px)`;
        element.setAttribute("aria-rowindex", place + 2); // the heads are the first
        element.id = `row-${place}`;
        element.dataset.place = place;
        byId("space").append(element);
        return element;
    },

    newElement() {
        const element = make("div", "", {class: "row", role: "row"});
        for (let i = 0; i < TABLES[look.table].columns.length; ++i)
            element.append(make("div", "", {role: "gridcell"}));
        return element;
    },

    // Where only the place has changed, rows that were there are as they were.
    paint(isOnlyMoved = false) {
        byId("space").style.height = `${this.total * this.rowHeight}px`;
        const {first, last} = this.seen();
        for (const [place, element] of this.elements) {
            if (place < first || place >= last) {
                element.remove();
                this.elements.delete(place);
                this.spare.push(element);
            }
        }
        for (let place = first; place < last; ++place) {
            if (!isOnlyMoved || !this.elements.has(place))
                this.fill(this.element(place), place);
        }
        byId("grid").setAttribute("aria-rowcount", this.total + 1);
        if (this.elements.has(this.active))
            byId("grid").setAttribute("aria-activedescendant", `row-${this.active}`);
        else
            byId("grid").removeAttribute("aria-activedescendant");
    },

    fill(element, place) {
        const row = this.rows[place - this.first];
        const columns = TABLES[look.table].columns;
        element.setAttribute("aria-selected", String(place === this.active));
        columns.forEach((column, i) => {
            const cell = element.children[i];
            const kind = typeof column.kind === "function" ? (row ? column.kind(row) : "") : column.kind || "";
            const name = `cell ${kind}`;
            if (cell.className !== name)
                cell.className = name;
            const text = row ? column.text(row) : "…";
            setText(cell, text);
            if (cell.title !== text)
                cell.title = text;
        });
    },

    isLoaded() {
        const {first, last} = this.seen();
        return first >= this.first && last <= Math.max(this.first + this.rows.length, 0);
    },

    // Rows that aren't there yet are asked for at once, and followed when the wheel stands still.
    scrolled() {
        this.paint(true);
        if (!this.isLoaded() && !this.asking)
            this.load();
        clearTimeout(this.settling);
        this.settling = setTimeout(() => stream.follow(), SETTLE_MS);
    },

    async load() {
        const {first, rows} = this.window();
        const words = wordsOf(look);
        words.set("first", first);
        words.set("rows", rows);
        const asking = this.asking = new AbortController();
        try {
            const table = await askJson("/api/rows", words, asking.signal);
            if (this.asking === asking) {
                this.asking = null;
                this.take(table);
                if (!this.isLoaded() && this.window().first !== first)
                    this.load();
            }
        } catch (error) {
            if (this.asking === asking)
                this.asking = null;
            if (error.name !== "AbortError")
                say(shown(error.message), true);
        }
    },

    cancel() {
        this.asking?.abort();
        this.asking = null;
        clearTimeout(this.settling);
    },

    choose(place) {
        if (this.total === 0)
            return;
        this.active = Math.max(0, Math.min(this.total - 1, place));
        const scroll = byId("scroll");
        const top = this.active * this.rowHeight;
        if (top < scroll.scrollTop)
            scroll.scrollTop = top;
        else if (top + this.rowHeight > scroll.scrollTop + scroll.clientHeight)
            scroll.scrollTop = top + this.rowHeight - scroll.clientHeight;
        this.paint();
    },

    open(place) {
        const row = this.rows[place - this.first];
        const {isOfFlows, open} = TABLES[look.table];
        if (row && isOfFlows)
            detail.show(row);
        if (!row || !open)
            return;
        const next = open(row, look);
        go({...next, order: TABLES[next.table].order, reversed: false, part: "", verdict: ""});
    },
};

// --- The stream ----------------------------------------------------------------------------------

const stream = {
    source: null,
    words: "",
    retry: 0,
    failing: 0,
    isBroken: false, // since the last event
    asking: null, // what cancels the question why it is refused

    follow() {
        if (document.hidden)
            return;
        const {first, rows} = grid.window();
        const words = wordsOf(look);
        words.set("first", first);
        words.set("rows", rows);
        if (this.source && this.words === String(words))
            return;
        this.close();
        this.words = String(words);
        this.source = new EventSource(`/api/live?${words}`);
        this.source.onmessage = (event) => this.take(JSON.parse(event.data));
        this.source.onerror = () => this.fail();
    },

    take(state) {
        clearTimeout(this.failing);
        this.failing = 0;
        if (this.isBroken)
            about.load(); // with what passed meanwhile
        this.isBroken = false;
        say(troubleText(state), true);
        about.take(state);
        const {first, last} = grid.seen();
        const table = state.table;
        // What was asked for before the last turn of the wheel may lie elsewhere.
        const reaches = table.first <= first && Math.min(last, table.total) <= table.first + table.rows.length;
        if (reaches || table.first === grid.window().first || grid.rows.length === 0)
            grid.take(table);
    },

    // A browser would wait for some seconds, and for ever after a refusal, of which it says nothing.
    fail() {
        this.failing ||= setTimeout(() => say("nobody answers; it is tried again", true), PATIENCE_MS);
        const isRefused = this.source.readyState === EventSource.CLOSED;
        const words = this.words;
        const wait = this.isBroken || isRefused ? RETRY_MS : AGAIN_MS;
        this.close();
        this.isBroken = true;
        if (isRefused)
            this.sayRefusal(words);
        this.retry = setTimeout(() => this.follow(), wait);
    },

    async sayRefusal(words) {
        const asking = this.asking = new AbortController();
        try {
            await ask("/api/live", words, asking.signal);
            asking.abort(); // not refused any more
        } catch (error) {
            if (error.name === "AbortError" || error instanceof TypeError)
                return; // nobody answers
            clearTimeout(this.failing);
            this.failing = 0;
            say(shown(error.message), true);
        }
    },

    close() {
        clearTimeout(this.retry);
        this.asking?.abort();
        this.source?.close();
        this.source = null;
    },
};

// --- What it is about: its sums and its course ---------------------------------------------------

const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

const about = {
    plot: null,
    data: [[], [], []], // seconds, down, up
    asking: null,
    dueMs: 0, // when it is read anew
    clientName: "",
    pathSaid: "",

    begin() {
        this.clientName = "";
        this.path();
        this.spans();
        setText(byId("sums"), "");
        this.data = [[], [], []];
        this.load();
    },

    path() {
        const said = `${hashOf(look)} ${this.clientName}`;
        if (this.pathSaid === said)
            return; // a link would lose the focus
        this.pathSaid = said;
        const parts = [make("a", "All", {href: hashOf({...turnTo(look, look.table), client: null, application: null})})];
        if (look.client !== null)
            parts.push(make("span", "›"), make("a", shown(this.clientName || look.client), {
                href: hashOf({...turnTo(look, "applications"), application: null})}));
        if (look.application !== null)
            parts.push(make("span", "›"), make("a", applicationText(look.application), {
                href: hashOf({...turnTo(look, "clients"), client: null})}));
        byId("path").replaceChildren(...parts);
    },

    spans() {
        for (const button of byId("spans").children)
            button.setAttribute("aria-pressed", String(button.value === look.span));
    },

    async load() {
        this.asking?.abort();
        const asking = this.asking = new AbortController();
        const words = choiceOf(look);
        const span = look.span;
        this.dueMs = span === "now" ? Infinity : Date.now() + BARS_MS;
        if (span !== "now")
            words.set("by", span);
        try {
            const said = await askJson(span === "now" ? "/api/course" : "/api/history", words, asking.signal);
            this.data = span === "now" ? this.courseOf(said) : this.barsOf(said.bars);
            setText(byId("plot-trouble"), "");
        } catch (error) {
            if (error.name === "AbortError")
                return;
            this.dueMs = Date.now() + BUSY_MS;
            setText(byId("plot-trouble"), shown(error.message));
        }
        this.draw();
    },

    courseOf(said) {
        const end = Math.floor(said.us / 1e6);
        const times = said.up.map((_, i) => end - said.up.length + 1 + i);
        return [times, said.down, said.up];
    },

    // Up is drawn over the sum of both. A day is the access point's, wherever the browser is.
    barsOf(bars) {
        const start = ({from_us, date}) => (date ? new Date(`${date}T00:00`).getTime() : from_us / 1e3) / 1e3;
        return [bars.map(start), bars.map((bar) => bar.up[1] + bar.down[1]),
                bars.map((bar) => bar.up[1])];
    },

    take(state) {
        setText(byId("sums"), state.up === undefined ? "" :
            `${rateText(state.down_rate)} down, ${rateText(state.up_rate)} up now; ` +
            `${sizeText(state.down[1])} down, ${sizeText(state.up[1])} up, ${counted(state.flows, "flows")}, ` +
            `${counted(state.dropped[0] + state.dropped[1], "packets")} dropped`);
        this.clientName = state.client_name || "";
        this.path();
        const [times, down, up] = this.data;
        const second = Math.floor(state.us / 1e6);
        if (Date.now() >= this.dueMs)
            this.load();
        if (look.span !== "now" || second <= (times.at(-1) ?? 0))
            return;
        times.push(second);
        down.push(state.told ? state.down_rate ?? 0 : null);
        up.push(state.told ? state.up_rate ?? 0 : null);
        while (times.length > SECONDS) {
            times.shift();
            down.shift();
            up.shift();
        }
        this.plot?.setData(this.data);
    },

    size() {
        const box = byId("plot");
        return {width: box.clientWidth, height: box.clientHeight - LEGEND_PX};
    },

    // No more of each than tells them apart.
    timesOf(times) {
        const texts = times.map((at) => timeText(at * 1e6));
        if (look.span === "day" || texts.every((text) => text.slice(11) === "00:00:00"))
            return texts.map((text) => text.slice(5, 10));
        const isMinute = times.every((at) => at % 60 === 0);
        return texts.map((text) => text.slice(11, isMinute ? 16 : 19));
    },

    // All of the time that bars may be of, and the present one to its end.
    barsRange() {
        const [one, all] = look.span === "hour" ? [3600, 48] : [86400, 60];
        const now = Date.now() / 1000;
        return [now - all * one, Math.max(now, this.data[0].at(-1) ?? 0) + one];
    },

    options() {
        const isNow = look.span === "now";
        const text = isNow ? rateText : sizeText;
        const line = {stroke: colour("--line"), width: 1};
        const axis = {stroke: colour("--text"), grid: line, ticks: line};
        const series = (label, name) => ({
            label, stroke: colour(name), points: {show: false},
            value: (_, amount) => amount == null ? "-" : text(amount),
            ...(isNow ? {width: 1.5} : {width: 0, fill: colour(name), paths: uPlot.paths.bars({size: [0.8, 60], align: 1})}),
        });
        return {
            ...this.size(),
            series: [{label: "At", value: (_, at) => at == null ? "-" : timeText(at * 1e6).slice(0, look.span === "day" ? 10 : 19)},
                     series(isNow ? "Down" : "Up and down", "--down"), series("Up", "--up")],
            axes: [{...axis, space: 90, values: (_, times) => this.timesOf(times)},
                   {...axis, size: 80, values: (_, amounts) => amounts.map(text)}],
            scales: {x: isNow ? {} : {range: () => this.barsRange()}, y: {range: (_, least, most) => [0, Math.max(most ?? 0, 1) * 1.05]}},
            cursor: {drag: {x: false, y: false}},
        };
    },

    draw() {
        this.plot?.destroy();
        this.plot = new uPlot(this.options(), this.data, byId("plot"));
        this.plot.setSize(this.size());
    },
};

// --- A flow in full ------------------------------------------------------------------------------

const detail = {
    names: {
        us: "when", client_name: "client's name", client_key: "client is", begun_us: "begun",
        last_us: "last seen", up_rate: "up now", down_rate: "down now", ask: "what else would decide",
    },

    row: null, // whose answer is awaited

    // At once what its row says, which stays where it has ended meanwhile.
    async show(row) {
        this.row = row;
        this.fill(row);
        this.lead(row);
        byId("detail").showModal();
        try {
            const said = await askJson("/api/flow", new URLSearchParams({id: row.id}));
            if (!said || this.row !== row)
                return;
            const {why = {}, ...flow} = said;
            const reasons = Object.entries(why).map(([name, value]) => [`why: ${name}`, value]);
            this.fill({...flow, ...Object.fromEntries(reasons), ask: row.ask});
        } catch (error) {
            if (this.row === row)
                byId("members").append(make("dt", ""), make("dd", shown(error.message)));
        }
    },

    // To what else there is of its client and its application.
    lead({client, application, name}) {
        const whose = {...look, client, application};
        const ways = [["applications", `Applications of ${shown(name || client)}`],
                      ["clients", `Clients of ${application === "" ? "what is unnamed" : shown(application)}`],
                      ["flows", "Flows of both"]];
        byId("ways").replaceChildren(...ways.map(([table, text]) =>
            make("a", text, {href: hashOf(turnTo(whose, table))})));
    },

    text(name, value) {
        if (name === "us" || name.endsWith("_us"))
            return timeText(value);
        if (name.endsWith("_rate"))
            return rateText(value);
        if (name === "up" || name === "down")
            return `${sizeText(value[1])} in ${value[0]} packets`;
        if (name === "ask")
            return `${value} says it, on the access point`;
        if (name === "dropped")
            return `${value[0]} packets by a denial, ${value[1]} by a limit`;
        return shown(value);
    },

    fill(members) {
        const cells = [];
        for (const [name, value] of Object.entries(members)) {
            if (value === undefined || value === "" || value === null)
                continue;
            cells.push(make("dt", this.names[name] || name.replaceAll("_", " ")), make("dd", this.text(name, value)));
        }
        byId("members").replaceChildren(...cells);
    },
};

// --- Keys, clicks, and what the browser tells ----------------------------------------------------

function menu() {
    for (const link of byId("tables").children) {
        link.href = hashOf(turnTo(look, link.dataset.table));
        if (link.dataset.table === look.table)
            link.setAttribute("aria-current", "page");
        else
            link.removeAttribute("aria-current");
    }
    byId("verdict-label").hidden = look.table !== "flows";
    byId("verdict").value = look.verdict;
    if (document.activeElement !== byId("part"))
        byId("part").value = look.part;
}

function apply() {
    const before = look;
    look = lookOf(location.hash);
    byId("detail").close();
    document.title = `jorn: ${TABLES[look.table].title.toLowerCase()}`;
    menu();
    grid.cancel();
    const isSameCourse = before.client === look.client && before.application === look.application &&
        before.span === look.span && about.plot;
    if (isSameCourse)
        about.path();
    else
        about.begin();
    grid.begin();
    stream.follow();
}

const MOVES = { // a page's rows are given
    ArrowDown: () => grid.active + 1,
    ArrowUp: () => grid.active - 1,
    PageDown: (page) => grid.active + page,
    PageUp: (page) => grid.active - page,
    Home: () => 0,
    End: () => grid.total - 1,
};

function pressed(event) {
    if (event.ctrlKey || event.altKey || event.metaKey || document.querySelector("dialog[open]"))
        return;
    const isText = event.target.matches("input, select");
    if (isText && event.key === "Escape")
        byId("grid").focus();
    if (isText)
        return;
    const isButton = event.target.matches("button, a");
    const table = Object.keys(TABLES)[Number(event.key) - 1];
    if (MOVES[event.key])
        grid.choose(MOVES[event.key](Math.max(1, Math.floor(byId("scroll").clientHeight / grid.rowHeight) - 1)));
    else if (event.key === "Enter" && !isButton)
        grid.open(grid.active);
    else if (event.key === "Backspace")
        history.back();
    else if (event.key === "/")
        byId("part").focus();
    else if (event.key === "?")
        byId("help").showModal();
    else if (table)
        go(turnTo(look, table));
    else
        return;
    event.preventDefault();
}

// Made once: what is replaced loses the keyboard's focus.
function build() {
    byId("tables").replaceChildren(...Object.entries(TABLES).map(([name, table]) =>
        make("a", table.title, {"data-table": name})));
    const spans = {now: "Ten minutes", hour: "Hours", day: "Days"};
    byId("spans").replaceChildren(...Object.entries(spans).map(([span, name]) => {
        const button = make("button", name, {type: "button", value: span});
        button.addEventListener("click", () => amend({...look, span}));
        return button;
    }));
    byId("verdict").replaceChildren(...VERDICTS.map((word) => make("option", word || "any", {value: word})));
}

function listen() {
    document.addEventListener("keydown", pressed);
    window.addEventListener("hashchange", apply);
    document.addEventListener("visibilitychange", () => {
        if (document.hidden) {
            stream.close();
            return;
        }
        about.load();
        stream.follow();
    });
    byId("scroll").addEventListener("scroll", () => requestAnimationFrame(() => grid.scrolled()), {passive: true});
    byId("space").addEventListener("click", (event) => {
        const row = event.target.closest(".row");
        if (!row)
            return;
        grid.active = Number(row.dataset.place);
        grid.open(grid.active);
    });
    let typing = 0;
    byId("part").addEventListener("input", () => {
        clearTimeout(typing);
        typing = setTimeout(() => amend({...look, part: byId("part").value}), SETTLE_MS);
    });
    byId("verdict").addEventListener("change", () => amend({...look, verdict: byId("verdict").value}));
    byId("help-button").addEventListener("click", () => byId("help").showModal());
    byId("help-close").addEventListener("click", () => byId("help").close());
    byId("detail-close").addEventListener("click", () => byId("detail").close());
    window.matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => about.draw());
    new ResizeObserver(() => {
        about.plot?.setSize(about.size());
        grid.paint();
    }).observe(document.querySelector("main"));
}

build();
listen();
apply();
byId("grid").focus();
