// The page: a section per server, notices above the sections, and the timer that
// queries the collector.

import * as format from './format.js';
import {Model} from './model.js';
import {element, Table} from './table.js';

const kFewServers = 3;  // with more servers only the first section is open initially
const kHistoryEvery = 10000;  // milliseconds

const byId = (id) => document.getElementById(id);
const model = new Model();
const view = {sortBy: 'requests', ascending: false, categories: true, filter: ''};
const sections = new Map();
let failedSince = null;
let lastAnswer = null;

function runText(run) {
  const parts = [run.reason];
  if (run.process) parts.push(`main process ${run.process}`);
  if (run.started) parts.push(`since ${format.time(run.started)}`);
  if (run.configuration_version) parts.push(`configuration ${run.configuration_version}`);
  return `${run.state}: ${parts.join(', ')}`;
}

// One word for all runs: the most important state.
function stateOf(server) {
  const states = ['live', 'held', 'unreadable', 'ending', 'stale'];
  return states.find((state) => server.runs.some((run) => run.state === state)) ?? 'stopped';
}

function whyOf(server, state) {
  const runs = server.runs.filter((run) => run.state === state);
  if (state !== 'live') return runs[0]?.reason ?? 'not running; the totals are kept';
  return runs.find((run) => !run.published || run.configuration_pending_seconds)?.reason ?? '';
}

class Section {
  constructor(server, open) {
    this.details = element('details', 'box');
    this.details.open = open;
    const summary = this.details.appendChild(element('summary'));
    summary.append(element('h2', '', server.name.replaceAll(',', ', ')));
    this.badge = summary.appendChild(element('span', 'badge'));
    this.why = summary.appendChild(element('span', 'why'));
    this.figures = summary.appendChild(element('span', 'figures'));
    this.runs = this.details.appendChild(element('ul', 'runs'));
    this.table = new Table(`Sites and categories of ${server.name}`, sortBy);
    this.details.append(this.table.table);
    // Also called for sections that are open initially.
    this.details.addEventListener('toggle', () => this.details.open && readHistory(server.name));
  }

  update(server) {
    const state = stateOf(server);
    this.badge.className = `badge ${state}`;
    this.badge.textContent = state;
    const data = model.servers.get(server.name);
    const rate = data.rate(data.groups.total, 'requests');
    this.why.textContent = whyOf(server, state);
    this.figures.textContent = state === 'live'
      ? `${format.orNothing(format.rate)(rate)} requests/s` : '';
    if (!this.details.open) return;
    this.runs.replaceChildren(...server.runs.map((run) => element('li', run.state, runText(run))));
    if (server.runs.length === 0) this.runs.append(element('li', '', whyOf(server, state)));
    this.table.update(data, view);
  }
}

function notices() {
  if (failedSince) {
    const from = lastAnswer ? ` The counts below are from ${format.time(lastAnswer)}.` : '';
    return [`The collector has not answered since ${format.time(failedSince)}.${from}`];
  }
  const {collector, time} = model.answer;
  const found = [];
  const last = collector.last_round ?? collector.started;
  if (time - last > Math.max(30, 5 * collector.interval)) {
    found.push(`The collector has not collected counts since ${format.time(last)}.`);
  }
  if (!collector.store_works) {
    found.push('The totals cannot be written to disk; see the collector’s log.');
  }
  if (collector.config && !collector.config.valid) {
    found.push(`${collector.config.file} is not valid; servers keep the previous configuration.`);
  }
  return found;
}

function showNotices() {
  const box = byId('notices');
  const texts = notices();
  const shown = [...box.children].map((notice) => notice.textContent);
  if (texts.join('\n') !== shown.join('\n')) {
    box.replaceChildren(...texts.map((text) => element('p', 'notice', text)));
  }
  document.body.classList.toggle('stale', failedSince !== null);
}

function show() {
  showNotices();
  if (!model.answer) return;
  const {collector, servers, time, version} = model.answer;
  byId('status').textContent = failedSince ? '' :
    `${format.time(time)}, every ${collector.interval} s`;
  byId('version').textContent = `Tolvane ${version}`;
  byId('none').hidden = servers.length > 0;
  byId('controls').hidden = servers.length === 0;
  for (const [name, section] of sections) {
    if (model.servers.has(name)) continue;
    section.details.remove();
    sections.delete(name);
  }
  servers.forEach((server, place) => {
    if (!sections.has(server.name)) {
      const section = new Section(server, servers.length <= kFewServers || place === 0);
      sections.set(server.name, section);
      byId('servers').insertBefore(section.details, byId('servers').children[place] ?? null);
    }
    sections.get(server.name).update(server);
  });
}

function sortBy(id) {
  view.ascending = view.sortBy === id ? !view.ascending : id === 'name';
  view.sortBy = id;
  show();
}

async function readHistory(...names) {
  try {
    for (const name of names) await model.readHistory(name);
  } catch {
    return;  // the next reading of the counts reports it
  }
  show();
}

function readHistories() {
  const open = [...sections].filter(([, section]) => section.details.open);
  readHistory(...open.map(([name]) => name));
}

async function readServers() {
  try {
    await model.readServers();
    failedSince = null;
    lastAnswer = Date.now() / 1000;
  } catch {
    failedSince ??= Date.now() / 1000;
  }
  show();
  const interval = model.answer?.collector.interval ?? 5;
  setTimeout(readServers, Math.min(Math.max(interval, 1), 10) * 1000);
}

byId('controls').addEventListener('submit', (event) => event.preventDefault());
byId('filter').addEventListener('input', (event) => {
  view.filter = event.target.value.trim().toLowerCase();
  show();
});
byId('categories').addEventListener('change', (event) => {
  view.categories = event.target.checked;
  show();
});
readServers();
setInterval(readHistories, kHistoryEvery);
