'use strict';
// The script of the page, which is put together from this file, page_map.js, page_table.js and page_sections.js. Each
// section of the page has its data as JSON: columns of numbers for the cells of the map, and rows of texts for the
// records. Texts are only added as text, never as HTML.

const GROUP = new Intl.NumberFormat('en', {useGrouping: true});
const shown = value => GROUP.format(value).replaceAll(',', '\u202F');
const clamp = (value, low, high) => Math.max(low, Math.min(high, value));

function element(tag, attributes = {}, ...children) {
  const made = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) made.addEventListener(name.slice(2), value);
    else if (value !== false) made.setAttribute(name, value === true ? '' : value);
  }
  made.append(...children);
  return made;
}

// The slots of an array in cells of equal size, and what is known of each cell.
class Cells {
  constructor(data) {
    Object.assign(this, data);
    this.strays = new Set(data.stray);
  }
  first(i) { return i * this.perCell; }
  last(i) { return Math.min(this.first(i) + this.perCell, this.slots) - 1; }
  size(i) { return this.last(i) - this.first(i) + 1; }
  count(use, i) { return this.uses[use] ? this.uses[use][i] : 0; }
  holds(i, slot) { return this.first(i) <= slot && slot <= this.last(i); }
  // Bytes of a pool's slots.
  deleted(i) { return this.pool.used[i] - this.pool.live[i]; }
  unused(i) { return Math.max(this.pool.room[i] - this.pool.used[i], 0); }
  // Share of the bytes that are in live chunks. Undefined if no slot of the cell can have chunks.
  live(i) { return this.pool && this.pool.room[i] ? Math.min(this.pool.live[i] / this.pool.room[i], 1) : undefined; }
  title(i) {
    const first = shown(this.first(i));
    return this.size(i) === 1 ? `Slot ${first}` : `Slots ${first} to ${shown(this.last(i))}`;
  }
  // Lines of a tooltip: the number of a colour, or undefined, and a text.
  lines(i) {
    const lines = [];
    this.useNames.forEach((name, use) => {
      const count = this.count(use, i);
      if (count) lines.push([use, this.size(i) === 1 ? name : `${shown(count)} ${name}`]);
    });
    if (this.strays.has(i)) lines.push([undefined, 'not on the list of its status']);
    if (this.live(i) === undefined) return lines;
    const {live, room, current} = this.pool, percent = Math.round(100 * this.live(i));
    lines.push([undefined, `${shown(live[i])} of ${shown(room[i])} bytes in live chunks (${percent} %)`]);
    lines.push([undefined, `${shown(this.deleted(i))} bytes deleted, ${shown(this.unused(i))} without a chunk`]);
    if (this.holds(i, current)) lines.push([undefined, `slot ${shown(current)} is current`]);
    return lines;
  }
  text(i) { return `${this.title(i)}: ${this.lines(i).map(line => line[1]).join(', ')}`; }
}
