// Values as people read them, and elements that hold them. Text becomes text and nothing else.

// An element with a class and children, each an element or a text.
export function element(tag, className, ...children) {
  const made = document.createElement(tag);
  if (className) made.className = className;
  made.append(...children);
  return made;
}

// Sets a text only where it differs, so that nothing is laid out for nothing.
export function setText(target, text) {
  if (target.textContent !== text) target.textContent = text;
}

const two = (number) => String(number).padStart(2, '0');

// Seconds since 1970 as the time of day here.
export function clock(seconds, withMilliseconds = true) {
  const date = new Date(seconds * 1000);
  if (Number.isNaN(date.getTime())) return '';
  const text = `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
  return withMilliseconds ? `${text}.${String(date.getMilliseconds()).padStart(3, '0')}` : text;
}

export function size(bytes) {
  if (!(bytes >= 1000)) return `${bytes ?? 0} B`;
  const units = ['KB', 'MB', 'GB', 'TB'];
  let value = bytes / 1000;
  let unit = 0;
  for (; value >= 999.95 && unit < units.length - 1; ++unit) value /= 1000;
  return `${value.toFixed(value < 99.95 ? 1 : 0)} ${units[unit]}`;
}

const whole = new Intl.NumberFormat('en');
export const count = (number) => whole.format(number);
export const several = (number, word) => `${count(number)} ${word}${number === 1 ? '' : 's'}`;

// A header of what was posted, in whatever case it came.
export function header(entry, name) {
  const wanted = name.toLowerCase();
  const found = Object.entries(entry.headers ?? {}).find(([key]) => key.toLowerCase() === wanted);
  return found ? inline(found[1]) : '';
}

// A value of JSON in one line.
export function inline(value) {
  return typeof value === 'string' ? value : JSON.stringify(value) ?? '';
}

const times = new Set(['postTime', 'eventTime', '_startTS', '_clientTS']);
const mostFields = 500;
const deepest = 8;

// The leaves of a value as [path, text], with the keys that `skips` refuses left out.
export function fieldsOf(value, skips = () => false) {
  const fields = [];
  const add = (path, key, inner, depth) => {
    if (fields.length >= mostFields || skips(path)) return;
    if (inner !== null && typeof inner === 'object' && depth < deepest) {
      const entries = Object.entries(inner);
      if (entries.length === 0) fields.push([path, Array.isArray(inner) ? '[]' : '{}']);
      for (const [name, next] of entries) add(`${path}.${name}`, name, next, depth + 1);
      return;
    }
    let text = inline(inner);
    if (times.has(key) && typeof inner === 'number') text += `  ${clock(inner)}`;
    fields.push([path, text]);
  };
  for (const [key, inner] of Object.entries(value)) add(key, key, inner, 1);
  return fields;
}
