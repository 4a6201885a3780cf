// Sessions as the records tell of them: "_sessionID" holds a session's own ID behind those of the
// sessions above it, joined by ".".
import {clock, element, header, setText, several} from './format.js';

const mostKept = 2000;
const mostShown = 300;
const deepest = 16;

export class Chains {
  // `box` shows them; `choose(id)` is told of the one that was pressed.
  constructor(box, choose) {
    this.box = box;
    this.choose = choose;
    this.sessions = new Map(); // by their own ID, in order of appearance
    this.titles = new Map();
    this.isDirty = true;
  }

  add(entry) {
    for (const record of entry.message?.events ?? []) {
      if (typeof record?._sessionID !== 'string') continue;
      const path = record._sessionID.split('.').filter(Boolean).slice(-deepest);
      const isPlain = new Set(path).size === path.length;
      this.place(isPlain ? path : path.slice(-1), entry, record);
    }
  }

  place(path, entry, record) {
    if (path.length === 0) return;
    const names = [header(entry, 'X-CVD-Client-Name'), header(entry, 'X-CVD-Service-Name')];
    let above = null;
    let session;
    for (const id of path) {
      session = this.sessions.get(id);
      if (!session) {
        session = {id, events: 0, names, sender: '', isOver: false, last: entry.time};
        this.sessions.set(id, session);
      }
      // The newest word on who is above it counts.
      session.above = above;
      above = session;
    }
    session.events += 1;
    session.names = names;
    session.sender = record._sender ?? '';
    session.last = entry.time;
    if (record._method === 0) session.isOver = record._status === 1;
    for (const id of this.sessions.keys()) {
      if (this.sessions.size <= mostKept) break;
      this.sessions.delete(id);
    }
    this.isDirty = true;
  }

  clear() {
    this.sessions.clear();
    this.isDirty = true;
  }

  describe() {
    return several(this.sessions.size, 'session');
  }

  // Brings the document up to date. Elements stay where they are unless their order changes, so that
  // the keyboard stays too.
  show() {
    if (!this.isDirty) return;
    this.isDirty = false;
    const shown = [...this.sessions.values()].slice(-mostShown);
    const below = new Map();
    const groups = new Map();
    for (const session of shown) {
      const above = shown.includes(session.above) ? session.above : null;
      if (above) {
        below.set(above, [...below.get(above) ?? [], session]);
      } else {
        const key = session.names.join('\n').toLowerCase();
        groups.set(key, [...groups.get(key) ?? [], session]);
      }
    }
    const wanted = [];
    const descend = (session, level) => {
      wanted.push(this.drawn(session, level));
      for (const next of below.get(session) ?? []) descend(next, level + 1);
    };
    for (const [key, tops] of groups) {
      wanted.push(this.title(key, tops[0].names));
      for (const top of tops) descend(top, 0);
    }
    if (wanted.length === 0) wanted.push(element('p', 'dim', 'No record has come yet.'));
    const hidden = this.sessions.size - shown.length;
    if (hidden > 0) wanted.push(element('p', 'dim', `${several(hidden, 'older session')} not shown`));
    const before = [...this.box.children];
    if (wanted.length !== before.length || wanted.some((one, at) => one !== before[at]))
      this.box.replaceChildren(...wanted);
  }

  title(key, names) {
    if (!this.titles.has(key)) this.titles.set(key, element('h3', 'clip'));
    const title = this.titles.get(key);
    setText(title, names.filter(Boolean).join(' · ') || 'without a name');
    return title;
  }

  drawn(session, level) {
    if (!session.element) {
      session.parts = ['sender', 'id clip', 'state', 'events', 'last'].map((name) => element('span', name));
      session.element = element('button', 'session', element('span', 'branch'), element('span', 'dot'),
                                ...session.parts);
      session.element.title = `Filter by ${session.id}`;
      session.element.addEventListener('click', () => this.choose(session.id));
    }
    const [sender, id, state, events, last] = session.parts;
    setText(sender, session.sender || '?');
    setText(id, session.id);
    setText(events, session.events === 0 ? 'not heard' : several(session.events, 'event'));
    setText(state, session.isOver ? 'ended' : '');
    setText(last, clock(session.last, false));
    session.element.classList.toggle('over', session.isOver);
    session.element.style.setProperty('--level', Math.min(level, 8));
    session.element.dataset.level = level;
    return session.element;
  }
}
