// The page as a whole: the lab's stream of events, shared out among the panels.
import {Arrivals} from './arrivals.js';
import {Chains} from './chains.js';
import {Faults} from './faults.js';
import {count, element, setText, several, size} from './format.js';
import {List} from './list.js';
import {Storebags} from './storebags.js';

const mostItems = 30000; // kept by the page, events and arrivals
const kinds = ['events', 'realtime', 'dashboard', 'logData', 'upload', 'storebags'];
const packets = 'dashboard';

const $ = (id) => document.getElementById(id);
const arrivals = new Arrivals();
const chains = new Chains($('chains'), filterBySession);
const faults = new Faults({servers: $('servers'), switches: $('switches'), refused: $('refused'), calm: $('calm')});
const storebags = new Storebags($('bags'));
const list = new List($('list'), (row, item, line) => (line === 0 ? item.draw(row) : item.drawField(row, line)),
                      (item) => {
                        arrivals.toggle(item);
                        list.changed(item);
                      });

const totals = {events: 0, posts: 0, packets: 0, bytes: 0};
const ofKind = Object.fromEntries(kinds.map((kind) => [kind, 0]));
let lost = 0;
let run;
let root = '';
let isPaused = false;
let incoming = []; // to be shown with the next frame, or once the pause is over
let isScheduled = false;

// --- What arrives

function take(entry) {
  incoming.push(entry);
  if (incoming.length > mostItems) {
    incoming.shift();
    ++lost;
  }
  if (isPaused) showPause();
  else schedule();
}

// Once a frame, and while nobody sees the page now and then.
function schedule() {
  if (isScheduled) return;
  isScheduled = true;
  if (document.hidden) setTimeout(showIncoming, 250);
  else requestAnimationFrame(showIncoming);
}

function showIncoming() {
  isScheduled = false;
  if (isPaused) return;
  const items = [];
  for (const entry of incoming) {
    const added = arrivals.add(entry);
    items.push(...added.items);
    chains.add(entry);
    tally(entry, added.arrival.events.length);
  }
  incoming = [];
  list.append(items);
  if (arrivals.events + arrivals.all.length > mostItems * 1.1) {
    const gone = arrivals.trim(mostItems);
    lost += gone.arrivals;
    list.set(arrivals.items(), gone.lines);
  }
  showTotals();
}

function tally(entry, events) {
  totals.events += events;
  if (entry.server === packets) ++totals.packets;
  else if (entry.server !== 'storebags') ++totals.posts;
  if (entry.server !== 'storebags') totals.bytes += entry.bytes ?? 0;
  if (entry.server in ofKind) ++ofKind[entry.server];
}

function showTotals() {
  for (const place of document.querySelectorAll('[data-count]')) {
    const name = place.dataset.count;
    setText(place, name === 'bytes' ? size(totals.bytes) : count(totals[name]));
  }
  for (const chip of $('kinds').children) setText(chip.lastChild, count(ofKind[chip.dataset.kind]));
  chains.show();
  setText($('sessions-count'), chains.describe());
  const parts = [arrivals.describe(list.items)];
  if (lost > 0) parts.push(`${several(lost, 'earlier one')} not kept`);
  setText($('shown'), parts.join(' · '));
  const isEmpty = list.items.length === 0;
  $('empty').hidden = !isEmpty;
  const example = `corvidctl --root ${root} send --client-type 5 colour=blue`;
  setText($('empty'), arrivals.all.length === 0 ? `Nothing has arrived yet. Try:\n${example}` : 'Nothing that arrived matches.');
}

function forget() {
  arrivals.clear();
  incoming = [];
  for (const sums of [totals, ofKind]) for (const name of Object.keys(sums)) sums[name] = 0;
  lost = 0;
  chains.clear();
  list.set([]);
  showTotals();
}

// --- What people want to see

function refilter() {
  list.set(arrivals.items());
  showTotals();
}

function filterBy(text) {
  $('filter').value = text;
  arrivals.filter(text);
  refilter();
}

// Pressed again it is forgotten.
function filterBySession(id) {
  const isChosen = $('filter').value === id;
  filterBy(isChosen ? '' : id);
  if (!isChosen) showPanel('arrivals');
}

function pause(paused) {
  isPaused = paused;
  $('pause').setAttribute('aria-pressed', paused);
  showPause();
  if (!paused) schedule();
}

function showPause() {
  setText($('pause'), !isPaused ? 'Pause' : incoming.length === 0 ? 'Paused' : `Paused, ${count(incoming.length)} new`);
}

function unfold(unfolded) {
  $('unfold').setAttribute('aria-pressed', unfolded);
  arrivals.unfold(unfolded);
  list.layOut(0);
  list.redraw();
}

function showPanel(name) {
  document.body.dataset.panel = name;
  for (const button of document.querySelectorAll('nav button'))
    button.setAttribute('aria-pressed', button.dataset.show === name);
  list.render();
}

const isPressed = (button) => button.getAttribute('aria-pressed') === 'true';

for (const kind of kinds) {
  const chip = element('button', `chip ${kind}`, element('span', 'badge', kind), ' ', element('span', 'number', '0'));
  chip.dataset.kind = kind;
  chip.setAttribute('aria-pressed', true);
  chip.addEventListener('click', () => {
    const isShown = !isPressed(chip);
    chip.setAttribute('aria-pressed', isShown);
    if (isShown) arrivals.hidden.delete(kind);
    else arrivals.hidden.add(kind);
    refilter();
  });
  $('kinds').append(chip);
}

$('filter').addEventListener('input', () => filterBy($('filter').value));
$('pause').addEventListener('click', () => pause(!isPaused));
$('unfold').addEventListener('click', () => unfold(!isPressed($('unfold'))));
$('follow').addEventListener('click', () => list.follow(true));
list.onfollow = (follows) => $('follow').setAttribute('aria-pressed', follows);
for (const button of document.querySelectorAll('nav button'))
  button.addEventListener('click', () => showPanel(button.dataset.show));

document.addEventListener('keydown', (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey) return;
  const isTyping = event.target.matches('input');
  if (event.key === 'Escape' && event.target === $('filter')) filterBy('');
  if (isTyping) return;
  if (event.key === '/') {
    event.preventDefault();
    showPanel('arrivals');
    $('filter').focus();
  }
  if (event.key === 'p') pause(!isPaused);
  if (event.key === 'u') unfold(!isPressed($('unfold')));
});

// How many characters of a value fit into a line.
list.onresize = () => {
  const probe = element('span', 'probe', '0'.repeat(50));
  list.box.append(probe);
  const width = probe.getBoundingClientRect().width / 50;
  probe.remove();
  const style = getComputedStyle(list.box);
  const measure = (name) => parseFloat(style.getPropertyValue(name));
  const rooms = [1, 2].map((level) => {
    const taken = measure(`--indent-${level}`) + measure('--keys') * width + 24; // with gap and edge
    return Math.max(Math.floor((list.box.clientWidth - taken) / width), 8);
  });
  if (width > 0) arrivals.setRooms(rooms);
  list.layOut(0);
};
list.resized();

// --- The lab

const feed = new EventSource('/feed');
const on = (name, handle) => feed.addEventListener(name, (event) => handle(JSON.parse(event.data)));
const setConnection = (text) => {
  setText($('connection'), text);
  $('connection').className = text;
};
feed.addEventListener('open', () => setConnection('live'));
feed.addEventListener('error', () => setConnection('away'));
on('hello', (hello) => {
  if (run !== undefined && run !== hello.run) forget(); // another lab: nothing of it is known yet
  run = hello.run;
});
on('lab', (lab) => {
  root = lab.root;
  setText($('root'), root);
  $('root').title = root;
  showTotals();
});
on('faults', (plans) => faults.update(plans));
on('storebags', (state) => storebags.update(state.storebags));
on('lost', (news) => {
  lost += news.lost;
  showTotals();
});
on('entry', take);
showTotals();
