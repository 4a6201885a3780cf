// A switch for each fault of each server. What is on is what the lab says, whoever planned it.
import {element, setText} from './format.js';

const servers = ['storebags', 'events', 'realtime', 'logData', 'upload', 'dashboard'];

// What an answer can suffer: its key in a plan, what it is called, and its parameter, if it has one.
const answerFaults = [
  {key: 'status', name: 'Another status', field: {type: 'number', min: 200, max: 599, value: 503}},
  {key: 'body', name: 'Another body', field: {type: 'text', value: 'nonsense'}},
  {key: 'redirect', name: 'A redirect', field: {type: 'text', value: 'https://localhost/'}},
  {key: 'delay', name: 'A delay', unit: 's', field: {type: 'number', min: 0, step: 0.1, value: 2}},
  {key: 'silent', name: 'No answer at all'},
  {key: 'cutHeadAfter', name: 'Cut in the head', unit: 'bytes', field: {type: 'number', min: 0, value: 10}},
  {key: 'cutBodyAfter', name: 'Cut in the body', unit: 'bytes', field: {type: 'number', min: 0, value: 0}},
  {key: 'endless', name: 'A body without end'},
  {key: 'corrupt', name: 'A wrong byte'},
  {key: 'truncate', name: 'Half of the body'},
];

// What a datagram can suffer, with how often.
const often = {type: 'number', min: 0, max: 1, step: 0.05, value: 0.5};
const wireFaults = [
  {key: 'drop', name: 'Lost', field: often},
  {key: 'duplicate', name: 'Doubled', field: often},
  {key: 'corrupt', name: 'Damaged', field: often},
  {key: 'reorder', name: 'After the next', field: often},
  {key: 'late', name: 'Late', field: often},
  {key: 'delay', name: 'Late by', unit: 's', field: {type: 'number', min: 0, max: 60, step: 0.1, value: 1}},
];
const ways = [['packets', 'Packets'], ['acknowledgements', 'Acknowledgements']];

export class Faults {
  // `parts`: the elements that hold the servers, the switches, what was refused, and the button that
  // ends all faults.
  constructor({servers: tabs, switches, refused, calm}) {
    this.switches = switches;
    this.refused = refused;
    this.plans = {};
    this.values = new Map(); // of the parameters, by server and place
    this.server = 'events';
    this.tabs = new Map();
    for (const server of servers) {
      const tab = element('button', '', server);
      tab.setAttribute('role', 'radio');
      tab.addEventListener('click', () => this.choose(server));
      this.tabs.set(server, tab);
      tabs.append(tab);
    }
    tabs.addEventListener('keydown', (event) => this.keyPressed(event));
    calm.addEventListener('click', () => this.calm());
    this.choose(this.server);
  }

  keyPressed(event) {
    const step = {ArrowRight: 1, ArrowDown: 1, ArrowLeft: -1, ArrowUp: -1}[event.key];
    if (!step) return;
    event.preventDefault();
    const at = servers.indexOf(this.server) + step + servers.length;
    this.choose(servers[at % servers.length]);
    this.tabs.get(this.server).focus();
  }

  // What the lab has planned, by server.
  update(plans) {
    this.plans = plans;
    this.show();
  }

  choose(server) {
    this.server = server;
    this.rows = [];
    const lines = [];
    if (server === 'dashboard') {
      for (const [way, title] of ways) {
        lines.push(element('h3', '', title));
        for (const fault of wireFaults) lines.push(this.row(fault, way));
      }
    } else {
      lines.push(this.timesRow());
      for (const fault of answerFaults) lines.push(this.row(fault));
    }
    this.switches.replaceChildren(...lines);
    this.show();
  }

  field(place, description, label) {
    const input = element('input', '');
    Object.assign(input, {...description, value: this.values.get(place) ?? description.value});
    input.setAttribute('aria-label', label);
    input.addEventListener('change', () => {
      this.values.set(place, input.value);
      if (this.rows.some((row) => row.input === input && row.isOn())) this.send();
    });
    return input;
  }

  timesRow() {
    const {server} = this;
    const place = `${server} times`;
    this.times = this.field(place, {type: 'number', min: 1, value: '', placeholder: 'all'}, 'How many answers');
    this.left = element('span', 'unit');
    return element('div', 'switch times', element('span', '', 'Answers'), this.times, this.left);
  }

  row(fault, way) {
    const plan = () => {
      const ofServer = this.plans[this.server] ?? {};
      return (way ? ofServer[way] : ofServer) ?? {};
    };
    const toggle = element('button', 'toggle');
    toggle.setAttribute('role', 'switch');
    toggle.setAttribute('aria-label', way ? `${way}: ${fault.name}` : fault.name);
    const place = [this.server, way, fault.key].join(' ');
    const input = fault.field ? this.field(place, fault.field, `${fault.name}: how`) : '';
    const row = {fault, way, input, toggle, place, isOn: () => fault.key in plan(), value: () => plan()[fault.key]};
    toggle.addEventListener('click', () => this.send(row));
    this.rows.push(row);
    if (!fault.field) return element('div', 'switch', element('span', 'alone', fault.name), toggle);
    const unit = fault.unit ? element('span', 'unit', fault.unit) : '';
    return element('div', 'switch', element('span', 'clip', fault.name), input, unit, toggle);
  }

  show() {
    for (const [server, tab] of this.tabs) {
      const isChosen = server === this.server;
      tab.setAttribute('aria-checked', isChosen);
      tab.tabIndex = isChosen ? 0 : -1;
      tab.classList.toggle('faulty', server in this.plans);
    }
    for (const row of this.rows) {
      row.toggle.setAttribute('aria-checked', row.isOn());
      if (row.input && row.isOn() && row.input !== document.activeElement) row.input.value = row.value();
    }
    const times = this.plans[this.server]?.times;
    if (this.server !== 'dashboard') setText(this.left, times > 0 ? `${times} left` : '');
  }

  // Sends the plan of this server as the switches stand, one of them thrown.
  send(thrown) {
    const plan = {server: this.server};
    for (const row of this.rows) {
      if (row.isOn() === (row === thrown)) continue;
      const {key, field} = row.fault;
      const value = field ? (field.type === 'number' ? Number(row.input.value) : row.input.value) : true;
      if (row.way) (plan[row.way] ??= {})[key] = value;
      else plan[key] = value;
    }
    if (this.server !== 'dashboard') {
      const isEmpty = Object.keys(plan).length === 1;
      plan.times = isEmpty ? 0 : Number(this.times.value) || -1;
    }
    return this.post(plan);
  }

  calm() {
    for (const server of Object.keys(this.plans))
      this.post(server === 'dashboard' ? {server} : {server, times: 0});
  }

  async post(plan) {
    try {
      const answer = await fetch('/fault', {
        method: 'POST',
        headers: {'Content-Type': 'application/json'},
        body: JSON.stringify(plan),
      });
      setText(this.refused, answer.ok ? '' : await answer.text());
    } catch {
      setText(this.refused, 'The lab does not answer.');
    }
  }
}
