// A list of any length of which only the lines in view are in the document. Every line is equally
// high, so that nothing has to be measured and nothing jumps; an item takes one or more lines.
import {element} from './format.js';

const overscan = 8;
let lists = 0;

export class List {
  // `box` scrolls. `draw(row, item, line)` fills the row for a line of an item, 0 its first one;
  // `toggle(item)` is asked to fold it. An item's `lines` is how many it takes; `level` and `open`
  // are told to those who do not see it.
  constructor(box, draw, toggle) {
    this.box = box;
    this.draw = draw;
    this.toggle = toggle;
    this.items = [];
    this.starts = []; // the first line of each item
    this.total = 0;
    this.current = -1; // the item that the keyboard is at
    this.follows = true;
    this.onfollow = () => {};
    this.rows = [];
    this.generation = 0; // rows of an older one are drawn again
    this.name = `list${++lists}`;
    this.spacer = element('div', 'spacer');
    box.append(this.spacer);
    box.addEventListener('scroll', () => this.scrolled());
    box.addEventListener('click', (event) => this.clicked(event));
    box.addEventListener('keydown', (event) => this.keyPressed(event));
    this.onresize = () => {};
    new ResizeObserver(() => this.resized()).observe(box);
    this.resized();
  }

  resized() {
    this.height = parseFloat(getComputedStyle(this.box).getPropertyValue('--row')) || 24;
    this.onresize();
    this.redraw();
  }

  // Other items, of which those at the front that are gone took `removed` lines.
  set(items, removed = 0) {
    const at = this.items[this.current];
    this.items = items;
    this.current = at ? items.indexOf(at) : -1;
    this.layOut(0);
    if (removed > 0 && !this.follows) this.box.scrollTop -= removed * this.height;
    this.redraw();
  }

  append(items) {
    for (const item of items) {
      this.starts.push(this.total);
      this.items.push(item);
      this.total += item.lines;
    }
    this.render();
  }

  // An item has been folded.
  changed(item) {
    this.layOut(Math.max(this.items.indexOf(item), 0));
    // It stays where it is, whoever was following the newest.
    if (this.follows !== this.isAtEnd()) this.follow(!this.follows);
    this.redraw();
  }

  layOut(from) {
    this.total = from === 0 ? 0 : this.starts[from];
    this.starts.length = from;
    for (let at = from; at < this.items.length; ++at) {
      this.starts.push(this.total);
      this.total += this.items[at].lines;
    }
  }

  redraw() {
    ++this.generation;
    this.render();
  }

  render() {
    const {box, height} = this;
    const whole = `${this.total * height}px`;
    if (this.spacer.style.height !== whole) this.spacer.style.height = whole;
    if (this.follows) box.scrollTop = this.total * height;
    const first = Math.max(Math.floor(box.scrollTop / height) - overscan, 0);
    const wanted = Math.ceil(box.clientHeight / height) + 2 * overscan;
    const last = Math.min(first + wanted, this.total);
    while (this.rows.length < wanted) this.rows.push(this.newRow());
    // A line has its row by its number: most rows stay as they are while the list scrolls.
    let item = this.itemAt(first);
    const used = new Set();
    for (let line = first; line < last; ++line) {
      while (item + 1 < this.items.length && this.starts[item + 1] <= line) ++item;
      const row = this.rows[line % this.rows.length];
      used.add(row);
      if (row.line === line && row.generation === this.generation) continue;
      Object.assign(row, {line, item, generation: this.generation});
      this.fill(row, this.items[item], line - this.starts[item]);
      row.style.transform = `translateY(${line * height}px)`;
      row.hidden = false;
    }
    for (const row of this.rows) {
      if (used.has(row)) continue;
      row.hidden = true;
      row.line = -1;
    }
    this.point();
  }

  newRow() {
    const row = element('div', '');
    row.hidden = true;
    row.id = `${this.name}-${this.rows.length}`;
    this.box.append(row);
    return row;
  }

  fill(row, item, line) {
    this.draw(row, item, line);
    const states = line === 0 ? {role: 'treeitem', 'aria-level': item.level, 'aria-expanded': item.open} : {};
    for (const name of ['role', 'aria-level', 'aria-expanded']) {
      if (name in states) row.setAttribute(name, states[name]);
      else row.removeAttribute(name);
    }
    row.classList.toggle('current', row.item === this.current);
  }

  // Tells a reader of the screen where the keyboard is.
  point() {
    const row = this.rows.find((one) => !one.hidden && one.item === this.current &&
                                        one.line === this.starts[this.current]);
    if (row) this.box.setAttribute('aria-activedescendant', row.id);
    else this.box.removeAttribute('aria-activedescendant');
  }

  itemAt(line) {
    let low = 0;
    let high = this.items.length - 1;
    while (low < high) {
      const middle = (low + high + 1) >> 1;
      if (this.starts[middle] <= line) low = middle;
      else high = middle - 1;
    }
    return low;
  }

  scrolled() {
    const follows = this.isAtEnd();
    if (follows !== this.follows) this.follow(follows);
    this.render();
  }

  isAtEnd() {
    return this.box.scrollTop + this.box.clientHeight >= (this.total - 1) * this.height;
  }

  follow(follows) {
    this.follows = follows;
    this.onfollow(follows);
    this.render();
  }

  clicked(event) {
    const row = event.target.closest('[role=treeitem]');
    if (!row || getSelection().toString()) return;
    this.current = row.item;
    this.toggle(this.items[row.item]);
  }

  keyPressed(event) {
    if (this.items.length === 0 || event.ctrlKey || event.altKey || event.metaKey) return;
    const page = Math.max(Math.floor(this.box.clientHeight / this.height) - 1, 1);
    const item = this.items[this.current];
    switch (event.key) {
      case 'ArrowDown': this.moveTo(this.current + 1); break;
      case 'ArrowUp': this.moveTo(this.current < 0 ? this.items.length - 1 : this.current - 1); break;
      case 'PageDown': this.moveTo(this.current + page); break;
      case 'PageUp': this.moveTo(this.current - page); break;
      case 'Home': this.moveTo(0); break;
      case 'End': this.moveTo(this.items.length - 1); this.follow(true); break;
      case 'ArrowRight': if (item && !item.open) this.toggle(item); break;
      case 'ArrowLeft': if (item && item.open) this.toggle(item); break;
      case 'Enter': if (item) this.toggle(item); break;
      default: return;
    }
    event.preventDefault();
  }

  moveTo(item) {
    this.current = Math.min(Math.max(item, 0), this.items.length - 1);
    const top = this.starts[this.current] * this.height;
    const {box} = this;
    if (top < box.scrollTop) box.scrollTop = top;
    else if (top + this.height > box.scrollTop + box.clientHeight)
      box.scrollTop = top + this.height - box.clientHeight;
    this.redraw();
  }
}
