// Making elements. Texts become text nodes, never markup.

/** An element with attributes (a function is a listener) and children: nodes or texts. */
export function element(tag, attributes = {}, ...children) {
  return filled(document.createElement(tag), attributes, children);
}

export function drawing(tag, attributes = {}, ...children) {
  return filled(document.createElementNS('http://www.w3.org/2000/svg', tag), attributes, children);
}

function filled(made, attributes, children) {
  for (const [name, value] of Object.entries(attributes)) {
    if (typeof value === 'function') made.addEventListener(name, value);
    else if (value !== undefined && value !== null && value !== false) made.setAttribute(name, value);
  }
  made.append(...children.filter((child) => child !== null && child !== undefined));
  return made;
}

export function byId(id) {
  return document.getElementById(id);
}

/** A small square in the colour of a name. */
export function swatch(hue) {
  const square = element('span', { class: 'swatch', 'aria-hidden': 'true' });
  square.style.setProperty('--hue', hue);
  return square;
}

/** A line of a given share of its width, as a background of what it holds. */
export function bar(share, ...children) {
  const made = element('span', { class: 'bar' }, element('i'), ...children);
  made.firstChild.style.width = `${Math.min(100, 100 * share).toFixed(2)}%`;
  return made;
}

const tip = { shown: null };

/** Shows lines of text beside the pointer or an element; none hides it. */
export function showTip(at, lines) {
  const box = byId('tip');
  tip.shown = lines;
  box.hidden = !lines;
  if (!lines) return;
  box.replaceChildren(...lines.map((line) => element('div', {}, line)));
  const { width, height } = box.getBoundingClientRect();
  const below = at.y + 18 + height < window.innerHeight;
  box.style.left = `${Math.max(4, Math.min(at.x + 12, window.innerWidth - width - 8))}px`;
  box.style.top = `${below ? at.y + 18 : Math.max(4, at.y - height - 10)}px`;
}

export function hideTip() {
  showTip(null, null);
}
