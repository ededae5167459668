// The data from the collector: the latest counts, earlier readings for the rates, and
// the history of the last 15 minutes.

const kStepsAsOne = 3;
const kRateWindow = 9.5;  // seconds; with a shorter window rates would jump

const keyOf = (...names) => names.join('\n');

async function getJson(path) {
  const response = await fetch(path, {cache: 'no-store', signal: AbortSignal.timeout(10000)});
  if (!response.ok) throw new Error(`status ${response.status}`);
  return response.json();
}

function withTimes(counts, categories) {
  const sum = (name) => categories.reduce((total, category) => total + category[name], 0);
  return {...counts, response_seconds: sum('response_seconds'), response_count: sum('response_count')};
}

// The total, and each site with its categories, without entries that are no longer
// configured.
function groupsOf(server) {
  const configured = (row) => row.configured;
  const sites = server.sites.filter(configured).map((site) => {
    const categories = site.categories.filter(configured);
    return {
      row: {level: 'site', key: keyOf(site.name), name: site.name,
            counts: withTimes(site, categories)},
      categories: categories.map((category) => ({
        level: 'category', key: keyOf(site.name, category.label), name: category.label,
        counts: category})),
    };
  });
  const all = sites.flatMap((site) => site.categories.map((row) => row.counts));
  const total = {level: 'total', key: '', name: 'All traffic', counts: withTimes(server.total, all)};
  return {total, sites};
}

export function rowsOf(groups) {
  return [groups.total, ...groups.sites.flatMap((site) => [site.row, ...site.categories])];
}

// Seconds between two readings. The times of the collections are whole seconds
// only; the number of collections is more precise, unless a collection was early or
// late.
function secondsBetween(older, newer, interval) {
  const byClock = newer.at - older.at;
  const byCollections = (newer.collections - older.collections) * interval;
  return Math.min(Math.max(byCollections, byClock - 1), byClock + 1);
}

// Combines several steps: a round of the collector may fall into a step or the next,
// which would appear as a zigzag.
function coarser(points, step) {
  const sum = (values) => values.reduce((total, value) => total + value, 0);
  const merged = {};
  for (const name of ['requests', 'errors', 'response_seconds', 'response_count']) {
    const values = points[name].slice(points[name].length % kStepsAsOne);
    merged[name] = values.flatMap((value, i) =>
      i % kStepsAsOne ? [] : [sum(values.slice(i, i + kStepsAsOne))]);
  }
  return {
    step: step * kStepsAsOne,
    points: merged,
    requests: sum(merged.requests),
    errors: sum(merged.errors),
    seconds: sum(merged.response_seconds),
    responses: sum(merged.response_count),
  };
}

class ServerModel {
  readings = [];
  history = new Map();

  take(server, interval) {
    this.groups = groupsOf(server);
    const rows = rowsOf(this.groups);
    const reading = {
      collections: server.collections,
      at: server.last_collection ?? 0,
      interval,
      counts: new Map(rows.map((row) => [row.key, row.counts])),
    };
    const latest = this.readings.at(-1);
    if (latest && latest.collections === reading.collections) return;
    // A restarted collector counts its collections from 0.
    if (latest && latest.collections > reading.collections) this.readings = [];
    this.readings.push(reading);
    while (this.readings.length > 2 && reading.at - this.readings[1].at >= kRateWindow) {
      this.readings.shift();
    }
  }

  // Per second; null while unknown.
  rate(row, name) {
    const newer = this.readings.at(-1);
    const older = this.readings[0];
    const before = older?.counts.get(row.key);
    const now = newer?.counts.get(row.key);
    if (older !== newer && before && now) {
      const seconds = secondsBetween(older, newer, newer.interval);
      if (seconds > 0) return Math.max(now[name] - before[name], 0) / seconds;
    }
    const recent = name === 'requests' && this.recent(row);
    return recent ? recent.points.requests.at(-1) / recent.step : null;
  }

  takeHistory(answer) {
    this.history = new Map();
    const server = answer.servers[0];
    if (!server) return;
    const add = (key, points) => {
      if (points.requests) this.history.set(key, coarser(points, answer.step));
    };
    add('', server.total);
    for (const site of server.sites) {
      add(keyOf(site.name), site);
      for (const category of site.categories) add(keyOf(site.name, category.label), category);
    }
  }

  // The last 15 minutes, null if nothing was counted.
  recent(row) {
    return this.history.get(row.key) ?? null;
  }
}

export class Model {
  servers = new Map();

  async readServers() {
    this.answer = await getJson('api/servers');
    const interval = this.answer.collector.interval;
    const before = this.servers;
    this.servers = new Map(this.answer.servers.map((server) => [
      server.name, before.get(server.name) ?? new ServerModel()]));
    for (const server of this.answer.servers) this.servers.get(server.name).take(server, interval);
  }

  async readHistory(name) {
    const answer = await getJson(`api/history?server=${encodeURIComponent(name)}`);
    this.servers.get(name)?.takeHistory(answer);
  }
}
