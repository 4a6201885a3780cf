// What arrived, as items of a list: a post, packet, file or fetch, and below it the events in it.
// Each folds out into its fields.
import {clock, count, element, fieldsOf, header, inline, several, size} from './format.js';

const shownPairs = 16;

const isOwn = (key) => key.startsWith('_') || key === 'eventTime';

class Item {
  constructor(level) {
    this.level = level;
    this.open = false;
    this.lines = 1;
  }
  // [key, part of the value] for each line below the first. `rooms`: how many characters of a value a
  // line has room for, by level.
  fold(open, rooms) {
    this.open = open;
    this.parts = [];
    if (open) {
      const room = rooms[this.level - 1];
      for (const [key, text] of this.fields()) {
        this.parts.push([key, text.slice(0, room)]);
        for (let at = room; at < text.length; at += room) this.parts.push(['', text.slice(at, at + room)]);
      }
    }
    this.lines = 1 + this.parts.length;
  }
  drawField(row, line) {
    const [key, text] = this.parts[line - 1];
    row.className = `line field level${this.level}${isOwn(key) ? ' own' : ''}`;
    const name = element('span', 'key clip', key);
    name.title = key;
    row.replaceChildren(name, element('span', 'value', text));
  }
}

class Event extends Item {
  constructor(arrival, record) {
    super(2);
    this.arrival = arrival;
    this.record = record !== null && typeof record === 'object' ? record : {record};
    this.text = textOf(this.fields());
  }
  fields() {
    const fields = fieldsOf(this.record);
    return [...fields.filter(([key]) => !isOwn(key)), ...fields.filter(([key]) => isOwn(key))];
  }
  kind() {
    const {_method: method, _status: status} = this.record;
    if (method === 0 && status === 0) return 'start';
    if (method === 0 && status === 1) return 'end';
    return status === 1 ? 'stop' : '';
  }
  draw(row) {
    const {_eventNumber: number, _method: method, _status: status} = this.record;
    row.className = 'line event';
    row.replaceChildren(
        element('span', 'fold'), element('span', 'number', number === undefined ? '' : `#${number}`),
        element('span', 'method', `${method ?? '?'}.${status ?? '?'}`),
        element('span', 'kind', this.kind()),
        pairs(Object.entries(this.record).filter(([key]) => !isOwn(key))));
  }
}

class Arrival extends Item {
  constructor(entry) {
    super(1);
    this.entry = entry;
    const records = Array.isArray(entry.message?.events) ? entry.message.events : [];
    this.text = `${textOf(this.fields())} server=${entry.server}`.toLowerCase();
    this.events = records.map((record) => new Event(this, record));
  }
  get server() {
    return this.entry.server ?? '';
  }
  fields() {
    const {target, status, bytes, answerBytes, fault, ...rest} = this.entry;
    const first = {target, status, bytes, answerBytes, fault};
    for (const key of Object.keys(first)) if (first[key] === undefined) delete first[key];
    const skips = (path) => ['message.events', 'time', 'server'].includes(path);
    return [...fieldsOf(first), ...fieldsOf(rest, skips)];
  }
  status() {
    const {entry} = this;
    if (entry.fault?.silent) return ['no answer', 'bad'];
    if (entry.server === 'dashboard') {
      if (entry.error) return ['refused', 'bad'];
      return entry.acknowledged ? ['ack', 'good'] : ['no ack', 'bad'];
    }
    const status = entry.status ?? 0;
    return [String(status || '-'), status >= 500 ? 'bad' : status >= 400 ? 'poor' : 'good'];
  }
  what() {
    const {entry} = this;
    if (entry.error) return element('span', 'clip bad', entry.error);
    if (entry.note) return element('span', 'clip dim', entry.note);
    if (entry.packet) return pairs(Object.entries(entry.packet.payload ?? {}));
    if (entry.file) return element('span', 'clip', `${inline(entry.query?.filename ?? 'a file')}`);
    if (entry.storebag) return element('span', 'clip', entry.storebag);
    const names = [header(entry, 'X-CVD-Client-Name'), header(entry, 'X-CVD-Service-Name')];
    const sender = element('b', '', header(entry, 'X-CVD-Sender'));
    return element('span', 'clip', sender, ' ', names.filter(Boolean).join(' · '));
  }
  extent() {
    const {entry} = this;
    if (entry.message) return several(this.events.length, 'event');
    if (entry.packet) return `${entry.packet.method}.${entry.packet.respCode} #${entry.packet.eventID}`;
    if (Array.isArray(entry.logData)) return several(entry.logData.length, 'line');
    return entry.file ? size(entry.file.size) : '';
  }
  draw(row) {
    const [status, mood] = this.status();
    row.className = 'line arrival';
    const [time, fraction] = clock(this.entry.time).split('.');
    row.replaceChildren(
        element('span', 'fold'),
        element('span', 'time', time, element('span', 'fraction dim', `.${fraction}`)),
        element('span', `server ${this.server}`, element('span', 'badge', this.server)), this.what(),
        element('span', 'extent', this.extent()),
        element('span', 'size', size(this.server === 'storebags' ? this.entry.answerBytes : this.entry.bytes)),
        element('span', `status ${mood}`, this.entry.fault ? element('i', 'mark', 'fault') : '',
                element('b', '', status)));
  }
}

function textOf(fields) {
  return fields.map(([key, text]) => `${key}=${text}`).join(' ').toLowerCase();
}

// The beginning of a record in one line.
function pairs(entries) {
  const line = element('span', 'clip pairs');
  for (const [key, value] of entries.slice(0, shownPairs))
    line.append(element('span', 'dim', `${key}=`), `${inline(value).slice(0, 200)}  `);
  return line;
}

// All that arrived, oldest first, and what of it a filter lets be seen.
export class Arrivals {
  constructor() {
    this.all = [];
    this.events = 0;
    this.words = [];
    this.hidden = new Set(); // servers
    this.unfolded = false;
    this.rooms = [80, 80];
  }

  // The items of a new arrival that are to be seen.
  add(entry) {
    const arrival = new Arrival(entry);
    this.all.push(arrival);
    this.events += arrival.events.length;
    if (this.unfolded) for (const event of arrival.events) event.fold(true, this.rooms);
    return {arrival, items: this.seen(arrival)};
  }

  // Forgets the oldest until at most so many events and arrivals are left; how many arrivals went, and
  // how many lines of what is to be seen.
  trim(most) {
    let lines = 0;
    let gone = 0;
    for (; gone < this.all.length - 1 && this.events + this.all.length - gone > most; ++gone) {
      for (const item of this.seen(this.all[gone])) lines += item.lines;
      this.events -= this.all[gone].events.length;
    }
    this.all.splice(0, gone);
    return {arrivals: gone, lines};
  }

  clear() {
    this.all = [];
    this.events = 0;
  }

  filter(text) {
    this.words = text.toLowerCase().split(/\s+/).filter((word) => word !== '' && word !== '-');
  }

  seen(arrival) {
    if (this.hidden.has(arrival.server)) return [];
    if (this.words.length === 0) return [arrival, ...arrival.events];
    const matches = (event) => this.words.every((word) => {
      const wanted = !word.startsWith('-');
      const text = wanted ? word : word.slice(1);
      return (arrival.text.includes(text) || (event?.text.includes(text) ?? false)) === wanted;
    });
    const events = arrival.events.filter(matches);
    return events.length > 0 || (arrival.events.length === 0 && matches()) ? [arrival, ...events] : [];
  }

  items() {
    return this.all.flatMap((arrival) => this.seen(arrival));
  }

  toggle(item) {
    item.fold(!item.open, this.rooms);
  }

  unfold(unfolded) {
    this.unfolded = unfolded;
    for (const {events} of this.all) for (const event of events) event.fold(unfolded, this.rooms);
  }

  setRooms(rooms) {
    if (rooms.join() === this.rooms.join()) return;
    this.rooms = rooms;
    for (const arrival of this.all)
      for (const item of [arrival, ...arrival.events]) if (item.open) item.fold(true, rooms);
  }

  describe(items) {
    const events = items.reduce((sum, item) => sum + (item.level === 2 ? 1 : 0), 0);
    const arrivals = items.length - events;
    const all = arrivals === this.all.length && events === this.events;
    const text = `${several(events, 'event')} in ${several(arrivals, 'arrival')}`;
    return all ? text : `${text} of ${count(this.events)} in ${count(this.all.length)}`;
  }
}
