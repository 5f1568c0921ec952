// The page: follows /events and keeps one list item for each printer. Every text of a printer goes through textContent,
// and every class comes from a list of ours, so nothing that a printer says becomes markup.
"use strict";

const SEVERITIES = ["none", "info", "warning", "error"];
const DAY = 24 * 3600 * 1000;
const STEP = 5 * 60 * 1000; // of the strip that shows the day
const CHANGES = 30; // lines of the latest changes
const SILENCE = 25000; // milliseconds after which a connection that says nothing counts as lost

const byId = (id) => document.getElementById(id);
const rows = new Map(); // by key: {data, spans, item, parts, seen}
let many = false; // machines
let began = Date.now(); // what is earlier is not known
let lastHeard = Date.now();

function make(tag, className, text) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}
const keyOf = (machine, name) => JSON.stringify([machine, name]);
const severityOf = (text) => (SEVERITIES.includes(text) ? text : "none");
const rank = (text) => SEVERITIES.indexOf(severityOf(text));
const timeOf = (text) => (text ? new Date(text) : null);
const clock = (time) => (time && !isNaN(time) ? time.toLocaleTimeString() : "");

// ---- a printer

function newRow(key) {
  const item = make("li");
  const details = make("details");
  const summary = make("summary");
  const parts = { name: make("span", "name"), state: make("span", "state"), supplies: make("span", "supplies"),
                  jobs: make("span", "jobs"), day: document.createElementNS("http://www.w3.org/2000/svg", "svg"),
                  more: make("div", "more"), details };
  parts.day.setAttribute("class", "day");
  parts.day.setAttribute("role", "img");
  parts.day.setAttribute("viewBox", "0 0 288 10");
  parts.day.setAttribute("preserveAspectRatio", "none");
  summary.append(parts.name, parts.state, parts.supplies, parts.jobs, parts.day);
  details.append(summary, parts.more);
  item.append(details);
  const row = { key, item, parts, spans: [], data: null, seen: true };
  details.addEventListener("toggle", () => showMore(row));
  rows.set(key, row);
  return row;
}

function supplyLine(supply) {
  const line = make("span", "supply");
  line.append(make("span", "", supply.name));
  const meter = make("meter");
  meter.max = 100;
  meter.low = 11;
  meter.high = 30;
  meter.optimum = 100;
  meter.setAttribute("aria-label", supply.name);
  if (supply.percent === null) line.append(make("span", "faint", "not known"), make("span"));
  else {
    meter.value = supply.percent;
    line.append(meter, make("span", "percent", supply.percent + " %"));
  }
  return line;
}

function show(row) {
  const { data, parts, item } = row;
  item.className = severityOf(data.severity) + (data.stale ? " stale" : "");
  parts.name.textContent = many ? data.name + " (" + data.machine + ")" : data.name;
  parts.state.textContent = data.stale && data.trouble ? data.state + ": " + data.trouble : data.state;
  parts.supplies.replaceChildren(...data.supplies.map(supplyLine));
  parts.jobs.textContent = data.jobs.length === 1 ? "1 job" : data.jobs.length + " jobs";
}

function table(caption, heads, lines) {
  const element = make("table");
  element.append(make("caption", "", caption));
  const head = make("tr");
  for (const text of heads) {
    const cell = make("th", "faint", text);
    cell.scope = "col";
    head.append(cell);
  }
  element.append(head);
  for (const line of lines) {
    const tr = make("tr");
    line.forEach((text) => tr.append(make("td", "", text)));
    element.append(tr);
  }
  return element;
}

// At most once a second; what changes meanwhile is shown at its end.
async function showMore(row) {
  const { data, parts } = row;
  if (!parts.details.open || row.asked) return void (row.again = true);
  row.asked = true;
  row.again = false;
  setTimeout(() => {
    row.asked = false;
    if (row.again) showMore(row);
  }, 1000);
  const list = make("dl");
  const add = (name, text) => text && list.append(make("dt", "", name), make("dd", "", text));
  add("Says", data.panel);
  add("Pages", data.pages === null ? "" : String(data.pages));
  add("Device", data.device);
  add("Driver", data.driver);
  add("Machine", data.machine);
  add("Changed", data.changed && timeOf(data.changed).toLocaleString());
  const jobs = data.jobs.map((job) => [String(job.id), job.title, job.owner, job.state]);
  const shown = [list];
  if (jobs.length) shown.push(table("Jobs", ["Number", "Title", "Owner", "State"], jobs));
  try {
    const where = "/api/printers/" + encodeURIComponent(data.name) + "?machine=" + encodeURIComponent(data.machine);
    const answer = await fetch(where);
    if (answer.ok) {
      const full = await answer.json();
      const lines = Object.entries(full.values).map(([name, value]) =>
        [name, value.text.length > 200 ? value.text.slice(0, 200) + "…" : value.text, value.meaning,
         clock(timeOf(value.written))]);
      shown.push(table("Variables", ["Name", "Value", "Meaning", "Written"], lines));
    }
  } catch (error) {
    shown.push(make("p", "faint", "The variables cannot be read now."));
  }
  parts.more.replaceChildren(...shown);
}

// ---- the day

function addSpan(row, data) {
  const last = row.spans[row.spans.length - 1];
  if (last && last.known !== false && last.severity === data.severity && last.stale === data.stale && last.state === data.state) return;
  row.spans.push({ from: Date.now(), severity: data.severity, stale: data.stale, state: data.state });
  showDay(row);
}

// Each step shows the worst that was in it.
function showDay(row) {
  const now = Date.now();
  const start = now - DAY;
  const steps = new Array(288).fill(-1);
  let errors = 0;
  row.spans = row.spans.filter((span, i) => i + 1 >= row.spans.length || row.spans[i + 1].from > start);
  row.spans.forEach((span, i) => {
    const end = i + 1 < row.spans.length ? row.spans[i + 1].from : now;
    const from = Math.max(span.from, start);
    if (span.known === false) return;
    if (rank(span.severity) === 3) errors += end - from;
    for (let at = Math.floor((from - start) / STEP); at <= Math.min(287, Math.floor((end - start) / STEP)); ++at)
      steps[at] = Math.max(steps[at], rank(span.severity));
  });
  const rects = [];
  for (let at = 0; at < 288; ) {
    let next = at;
    while (next < 288 && steps[next] === steps[at]) ++next;
    const rect = document.createElementNS("http://www.w3.org/2000/svg", "rect");
    rect.setAttribute("x", at);
    rect.setAttribute("y", 0);
    rect.setAttribute("width", next - at);
    rect.setAttribute("height", 10);
    rect.setAttribute("class", steps[at] < 0 ? "away" : SEVERITIES[steps[at]]);
    rects.push(rect);
    at = next;
  }
  row.parts.day.replaceChildren(...rects);
  const known = Math.min(DAY, now - began);
  row.parts.day.setAttribute("aria-label", "Last day: with an error for " + Math.round(errors / 60000) +
    " of " + Math.round(known / 60000) + " minutes that are known");
}

async function loadDay() {
  try {
    const answer = await fetch("/api/timeline?since=1d");
    if (!answer.ok) return;
    const day = await answer.json();
    began = timeOf(day.began).getTime();
    for (const printer of day.printers) {
      const row = rows.get(keyOf(printer.machine, printer.name));
      if (!row) continue;
      row.spans = printer.spans.map((span) => ({ ...span, from: timeOf(span.from).getTime() }));
      showDay(row);
    }
  } catch (error) {
    // The strips stay as they are until the next connection.
  }
}

// ---- the list

let arranging = false;
function arrange() {
  if (arranging) return;
  arranging = true;
  requestAnimationFrame(() => {
    arranging = false;
    arrangeNow();
  });
}

function arrangeNow() {
  const wanted = byId("filter").value.trim().toLowerCase();
  const lowest = (data) => Math.min(101, ...data.supplies.map((supply) => supply.percent ?? 101));
  const byName = (a, b) => a.data.name.localeCompare(b.data.name) || a.key.localeCompare(b.key);
  const orders = { severity: (a, b) => rank(b.data.severity) - rank(a.data.severity), name: () => 0,
                   jobs: (a, b) => b.data.jobs.length - a.data.jobs.length,
                   supplies: (a, b) => lowest(a.data) - lowest(b.data) };
  const order = orders[byId("sort").value];
  const sorted = [...rows.values()].sort((a, b) => order(a, b) || byName(a, b));
  const counts = { error: 0, warning: 0 };
  let shown = 0;
  const list = byId("printers");
  let place = list.firstElementChild;
  for (const row of sorted) {
    const { data, item } = row;
    if (data.severity in counts) ++counts[data.severity];
    const text = [data.name, data.machine, data.state, data.device, data.trouble].join(" ").toLowerCase();
    item.hidden = !text.includes(wanted);
    shown += !item.hidden;
    // Moving an element takes its focus, so only what is out of place moves.
    if (item === place) place = place.nextElementSibling;
    else list.insertBefore(item, place);
  }
  byId("none").hidden = shown > 0;
  byId("counts").textContent = rows.size + (rows.size === 1 ? " printer" : " printers") + ", " + counts.error +
    " with an error, " + counts.warning + " to look at";
  document.title = (counts.error ? "(" + counts.error + ") " : "") + "Printers";
}

function takePrinter(data) {
  const key = keyOf(data.machine, data.name);
  const row = rows.get(key) || newRow(key);
  const before = row.data;
  row.data = data;
  row.seen = true;
  const machines = new Set([...rows.values()].map((each) => each.data.machine)).size > 1;
  if (machines !== many) {
    many = machines;
    rows.forEach(show);
  } else show(row);
  if (before && rank(data.severity) > 1 && before.state !== data.state)
    byId("news").textContent = data.name + ": " + data.state;
  addSpan(row, data);
  showMore(row);
  arrange();
}

function drop(key) {
  const row = rows.get(key);
  if (!row) return;
  row.item.remove();
  rows.delete(key);
  arrange();
}

function takeChange(change) {
  const words = (value) => (value ? value.meaning || value.text : "");
  const after = change.after ? words(change.after) : "";
  const text = change.kind === "value" ? change.variable + ": " + after : change.kind;
  const line = make("li", change.after ? severityOf(change.after.severity) : "");
  line.textContent = [clock(timeOf(change.at)), change.printer || change.machine, text].filter(Boolean).join("  ");
  const list = byId("changes");
  list.prepend(line);
  while (list.children.length > CHANGES) list.lastElementChild.remove();
}

// ---- the connection

function say(text, lost) {
  const link = byId("link");
  if (link.textContent !== text) link.textContent = text;
  link.classList.toggle("lost", lost);
}

// Where no reader is let in, the list is asked for.
async function poll() {
  const answer = await fetch("/api/printers");
  if (answer.status === 401) return say("a token is needed: open this page with ?token=", true);
  if (!answer.ok) return;
  const document = await answer.json();
  rows.forEach((row) => (row.seen = false));
  document.printers.forEach(takePrinter);
  rows.forEach((row, key) => row.seen || drop(key));
  say("asking every 2 seconds", false);
}

function follow() {
  const events = new EventSource("/events");
  const on = (name, take) => events.addEventListener(name, (event) => {
    lastHeard = Date.now();
    take(JSON.parse(event.data));
  });
  events.onopen = () => {
    lastHeard = Date.now();
    say("live", false);
  };
  on("hello", () => rows.forEach((row) => (row.seen = false)));
  on("printer", takePrinter);
  on("removed", (gone) => drop(keyOf(gone.machine, gone.name)));
  on("machines", (machines) => {
    const away = machines.filter((machine) => !machine.connected).map((machine) => machine.name);
    say(away.length ? "not connected: " + away.join(", ") : "live", away.length > 0);
  });
  on("change", takeChange);
  on("beat", () => {});
  on("ready", () => {
    rows.forEach((row, key) => row.seen || drop(key));
    arrange();
    loadDay();
  });
  events.onerror = () => {
    say("connection lost, trying again", true);
    if (events.readyState !== EventSource.CLOSED) return;
    poll().catch(() => {}).finally(() => setTimeout(follow, 2000));
  };
  const watch = setInterval(() => {
    if (events.readyState === EventSource.CLOSED) clearInterval(watch);
    else if (Date.now() - lastHeard > SILENCE) {
      say("connection lost, trying again", true);
      clearInterval(watch);
      events.close();
      follow();
    }
  }, 5000);
}

byId("filter").addEventListener("input", arrange);
byId("sort").addEventListener("change", arrange);
byId("tools").addEventListener("submit", (event) => event.preventDefault());
document.addEventListener("keydown", (event) => {
  if (event.key === "/" && event.target === document.body) {
    event.preventDefault();
    byId("filter").focus();
  } else if (event.key === "Escape" && event.target === byId("filter")) {
    byId("filter").value = "";
    arrange();
  }
});
setInterval(() => rows.forEach(showDay), 60000);
follow();
