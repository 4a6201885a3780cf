// What each storebag says now, and which of them the daemon has taken.
import {clock, element, setText, several} from './format.js';

export class Storebags {
  constructor(box) {
    this.box = box;
    this.bags = new Map(); // their elements, by name
  }

  update(storebags) {
    const wanted = storebags.map((bag) => this.drawn(bag));
    const before = [...this.box.children];
    if (wanted.length !== before.length || wanted.some((one, at) => one !== before[at]))
      this.box.replaceChildren(...wanted);
  }

  drawn(bag) {
    let parts = this.bags.get(bag.name);
    if (!parts) {
      parts = this.made(bag.name);
      this.bags.set(bag.name, parts);
    }
    const isNewer = bag.inForce !== undefined && bag.modified > Math.floor(bag.lastFetch);
    setText(parts.version, bag.error ? 'cannot be served' : bag.inForce ?? 'not fetched');
    parts.version.className = `version clip ${bag.error ? 'bad' : bag.inForce === undefined ? 'dim' : ''}`;
    setText(parts.fetch, bag.fetches ? `${bag.lastStatus} ${clock(bag.lastFetch, false)}` : '');
    parts.fetch.className = `fetch ${bag.lastStatus >= 400 ? 'bad' : 'dim'}`;
    const says = [bag.error ?? `version ${bag.version}`, `changed ${clock(bag.modified, false)}`];
    if (isNewer) says.push('newer than what was fetched');
    if (bag.fetches) says.push(`fetched ${several(bag.fetches, 'time')}`);
    setText(parts.says, says.join(' · '));
    setText(parts.newer, isNewer ? 'edited' : '');
    const isOther = parts.modified !== bag.modified;
    parts.modified = bag.modified;
    if (isOther && parts.isOpen) this.read(bag.name, parts);
    return parts.whole;
  }

  made(name) {
    const parts = {isOpen: false};
    for (const part of ['version', 'newer', 'fetch', 'says']) parts[part] = element('span', part);
    parts.content = element('pre', '');
    parts.content.tabIndex = 0;
    parts.inside = element('div', 'inside', parts.says, parts.content);
    parts.inside.hidden = true;
    const button = element('button', 'bag', element('span', 'fold'), element('b', 'clip', name),
                           parts.version, parts.newer, parts.fetch);
    button.setAttribute('aria-expanded', false);
    button.addEventListener('click', () => {
      parts.isOpen = !parts.isOpen;
      button.setAttribute('aria-expanded', parts.isOpen);
      parts.inside.hidden = !parts.isOpen;
      if (parts.isOpen) this.read(name, parts);
    });
    parts.whole = element('div', '', button, parts.inside);
    return parts;
  }

  async read(name, parts) {
    try {
      const answer = await fetch(`/storebags/${encodeURIComponent(name)}`);
      setText(parts.content, await answer.text());
    } catch {
      setText(parts.content, 'The lab does not answer.');
    }
  }
}
