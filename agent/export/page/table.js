// The table of a server: its columns, its rows, and their order.

import * as format from './format.js';
import {rowsOf} from './model.js';
import {Sparkline} from './sparkline.js';

const kManyErrors = 0.05;

const ratio = (part, whole) => whole > 0 ? part / whole : null;
const highest = (values) => values.reduce((most, value) => Math.max(most, value), 0);
const minutes = (recent) => Math.round(recent.points.requests.length * recent.step / 60);

const kNoLine = [[], 0, 'Nothing in the last 15 minutes'];

function requestLine(recent) {
  const values = recent.points.requests;
  const most = highest(values);
  return [values, most, `Requests in the last ${minutes(recent)} minutes: ` +
    `${format.exactCount(recent.requests)}, at most ${format.rate(most / recent.step)} per second`];
}

// The full height is at least 5 % of the requests, so that a single error does not look
// dramatic.
function errorLine(recent) {
  const values = recent.points.errors;
  const scale = Math.max(highest(values), kManyErrors * highest(recent.points.requests));
  return [values, scale, `Errors in the last ${minutes(recent)} minutes: ` +
    `${format.exactCount(recent.errors)} of ${format.plural(recent.requests, 'request')}`];
}

function meanLine(recent) {
  const {response_seconds: seconds, response_count: responses} = recent.points;
  const values = seconds.map((sum, i) => ratio(sum, responses[i]));
  const most = highest(values);
  return [values, most, `Mean response time in the last ${minutes(recent)} minutes: ` +
    `${format.orNothing(format.duration)(ratio(recent.seconds, recent.responses))}, ` +
    `at most ${format.duration(most)}`];
}

const counted = (name, text) => ({
  value: (row) => row.counts[name] ?? null, text, exact: format.exactCount});

// `from` is the narrowest window class that shows the column.
const kColumns = [
  {id: 'name', title: 'Site / category', hint: 'Site, or URL category of the site'},
  {id: 'rate', title: 'Req/s', hint: 'Requests per second now; the line: the last 15 minutes',
   text: format.rate, spark: 'requests', line: requestLine,
   value: (row, model) => model.rate(row, 'requests')},
  {id: 'sent_rate', title: 'Sent/s', hint: 'Bytes sent per second now', from: 'wide',
   text: format.bytes, value: (row, model) => model.rate(row, 'sent_bytes')},
  {id: 'errors', title: 'Errors',
   hint: 'Responses with a status of 400 to 599, of the requests of the last 15 minutes',
   text: format.share, spark: 'errors', line: errorLine,
   value: (row, model) => {
     const recent = model.recent(row);
     return recent && ratio(recent.errors, recent.requests);
   }},
  {id: 'mean', title: 'Response',
   hint: 'Mean time until a response started, of the last 15 minutes; errors are not in it',
   text: format.duration, spark: 'mean', line: meanLine,
   value: (row, model) => {
     const recent = model.recent(row);
     return recent && ratio(recent.seconds, recent.responses);
   }},
  {id: 'requests', title: 'Requests', hint: 'Requests counted', from: 'small',
   ...counted('requests', format.count)},
  {id: 'share', title: 'Errors', hint: 'Errors, of all requests counted', from: 'widest',
   text: format.share, value: (row) => ratio(row.counts.errors, row.counts.requests)},
  {id: 'response', title: 'Response', hint: 'Mean response time of all requests counted',
   from: 'widest', text: format.duration,
   value: (row) => ratio(row.counts.response_seconds, row.counts.response_count)},
  {id: 'client', title: '4xx', hint: 'Responses with a status of 400 to 499', from: 'middle',
   ...counted('client_errors', format.count)},
  {id: 'server', title: '5xx', hint: 'Responses with a status of 500 to 599', from: 'middle',
   ...counted('server_errors', format.count)},
  {id: 'redirects', title: '3xx', hint: 'Responses with a status of 300 to 399', from: 'wide',
   ...counted('redirects', format.count)},
  {id: 'dropped', title: 'Dropped', hint: 'Requests whose connection closed before a response',
   from: 'middle', ...counted('dropped_requests', format.count)},
  {id: 'connections', title: 'Conns', hint: 'Connections', from: 'widest',
   ...counted('connections', format.count)},
  {id: 'sent', title: 'Sent', hint: 'Bytes sent to clients', from: 'small',
   ...counted('sent_bytes', format.bytes)},
  {id: 'received', title: 'Received', hint: 'Bytes received from clients', from: 'widest',
   ...counted('received_bytes', format.bytes)},
];

export function element(tag, className = '', text = '') {
  const made = document.createElement(tag);
  if (className) made.className = className;
  made.textContent = text;
  return made;
}

// Changes only different text, so a selection is kept.
function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

// A name with possible line breaks.
function breakable(name) {
  const line = element('span');
  for (const part of name.split(/(?<=[./_])/)) line.append(part, document.createElement('wbr'));
  return line;
}

class Row {
  constructor(row) {
    this.tr = element('tr', row.level);
    this.cells = kColumns.map((column) => this.makeCell(column));
    this.cells[0].cell.prepend(breakable(row.name));
  }

  makeCell(column) {
    const cell = element(column.id === 'name' ? 'th' : 'td', column.from ?? '');
    cell.classList.add(column.id);
    if (column.id === 'name') cell.scope = 'row';
    this.tr.append(cell);
    if (column.id === 'name') {
      return {cell, below: cell.appendChild(element('small'))};
    }
    if (!column.spark) return {cell, text: cell};
    const figure = cell.appendChild(element('div', 'figure'));
    const spark = new Sparkline(column.spark);
    figure.append(spark.svg);
    return {cell, spark, text: figure.appendChild(element('span'))};
  }

  update(row, model) {
    const recent = model.recent(row);
    kColumns.forEach((column, i) => {
      const {cell, text, below, spark} = this.cells[i];
      if (column.id === 'name') {
        setText(below, `${format.shortCount(row.counts.requests)} req, ` +
          format.bytes(row.counts.sent_bytes));
        return;
      }
      const value = column.value(row, model);
      const missing = value === null && column.exact;
      setText(text, missing ? '' : format.orNothing(column.text)(value));
      if (value !== null && column.exact) cell.title = column.exact(value);
      if (spark) spark.draw(...(recent ? column.line(recent) : kNoLine));
      if (column.id === 'errors') cell.classList.toggle('many', value >= kManyErrors);
    });
  }
}

function compare(column, ascending, model) {
  if (column.id === 'name') {
    return (a, b) => a.name.localeCompare(b.name) * (ascending ? 1 : -1);
  }
  const key = (row) => column.value(row, model) ?? -1;
  return (a, b) => (key(a) - key(b)) * (ascending ? 1 : -1);
}

// Sorts the sites, and the categories within their site. A site is shown if one of its
// categories matches the filter.
function arranged(groups, view, model) {
  const order = compare(kColumns.find((column) => column.id === view.sortBy), view.ascending, model);
  const matches = (row) => row.name.toLowerCase().includes(view.filter);
  const sites = groups.sites.flatMap(({row, categories}) => {
    const shown = matches(row) ? categories : categories.filter(matches);
    if (!matches(row) && shown.length === 0) return [];
    return {row, categories: view.categories ? shown.toSorted(order) : []};
  });
  return rowsOf({total: groups.total, sites: sites.toSorted((a, b) => order(a.row, b.row))});
}

export class Table {
  rows = new Map();

  // `sort` is called with the id of the column of a selected heading.
  constructor(caption, sort) {
    this.table = element('table');
    this.table.append(element('caption', 'hidden', caption));
    const head = this.table.appendChild(element('thead'));
    const groups = head.appendChild(element('tr', 'groups'));
    groups.append(element('td'));
    const spanning = (columns, className, text) => {
      const heading = groups.appendChild(element('th', className, text));
      heading.colSpan = columns;
      heading.scope = 'colgroup';
    };
    // Hidden columns do not count for a span.
    spanning(3, 'unless-wide', 'Last 15 minutes');
    spanning(4, 'wide', 'Last 15 minutes');
    spanning(kColumns.length - 5, 'small', 'All that was counted');
    this.headings = this.makeHeadings(head.appendChild(element('tr')), sort);
    this.body = this.table.appendChild(element('tbody'));
  }

  makeHeadings(line, sort) {
    return kColumns.map((column) => {
      const heading = line.appendChild(element('th', column.from ?? ''));
      heading.classList.add(column.id);
      heading.scope = 'col';
      const button = heading.appendChild(element('button', '', column.title));
      button.type = 'button';
      button.title = column.hint;
      button.addEventListener('click', () => sort(column.id));
      return heading;
    });
  }

  update(model, view) {
    kColumns.forEach(({id}, i) => {
      const order = view.ascending ? 'ascending' : 'descending';
      this.headings[i].setAttribute('aria-sort', id === view.sortBy ? order : 'none');
    });
    const shown = arranged(model.groups, view, model);
    const before = this.rows;
    this.rows = new Map();
    for (const row of shown) {
      const line = before.get(row.key) ?? new Row(row);
      line.update(row, model);
      this.rows.set(row.key, line);
    }
    const lines = [...this.rows.values()].map((line) => line.tr);
    const moved = lines.length !== this.body.rows.length ||
      lines.some((tr, i) => this.body.rows[i] !== tr);
    if (moved) this.body.replaceChildren(...lines);
  }
}
