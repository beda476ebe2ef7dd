// Tables that can be searched and sorted.

const ROW_PIXELS = 28, COMPARISON = /^(.+?)(<=|>=|<|>|=)(.+)$/;
const SIGNS = {
  '<': (a, b) => a < b, '>': (a, b) => a > b, '<=': (a, b) => a <= b, '>=': (a, b) => a >= b, '=': (a, b) => a === b};

// A table of which only the visible rows are elements. A column has name, isNumber, text(row), value(row), and perhaps
// cell(row), its elements. The last column is empty and takes the rest of the width. holds(row, number) says whether a
// searched number names the row.
class DataTable {
  constructor(host, {title, note, columns, count, holds, placeholder, onChoose, onSearch}) {
    Object.assign(this, {columns, count, holds, onChoose, onSearch, chosen: -1, sorted: -1, isDown: false, texts: []});
    this.order = [...Array(count).keys()];
    this.search = element('input',
      {type: 'search', placeholder, 'aria-label': `Search: ${title}`, oninput: () => this.filter()});
    this.counter = element('span', {class: 'count', 'aria-live': 'polite'});
    this.note = note;
    this.heads = columns.map((column, at) => element('th', {class: column.isNumber ? 'n' : '', scope: 'col'},
      element('button', {type: 'button', title: column.name, onclick: () => this.sort(at)}, column.name)));
    this.body = element('tbody');
    const widths = columns.map(column => column.width || this.widthOf(column));
    const table = element('table', {style: `width:${widths.reduce((sum, width) => sum + width, 0)}ch`},
      element('colgroup', {}, ...widths.map(width => element('col', {style: `width:${width}ch`})), element('col')),
      element('thead', {}, element('tr', {}, ...this.heads, element('td'))), this.body);
    this.rows = element('div', {class: 'rows', tabindex: 0, onscroll: () => this.draw()}, table);
    host.append(element('div', {class: 'bar'}, element('h3', {}, title), this.counter, this.search), this.rows);
    this.filter();
  }
  widthOf(column) {
    let width = column.name.length + 2;
    for (let row = 0; row < Math.min(this.count, 100); ++row) width = Math.max(width, column.text(row).length);
    return clamp(width, 5, 34) + 3;
  }
  textOf(row) {
    return this.texts[row] ??= this.columns.map(column => column.text(row)).join('\n').toLowerCase();
  }
  // All words have to match: a comparison with a column, a number that names the row, or a part of a text.
  tests() {
    return this.search.value.toLowerCase().split(/\s+/).filter(Boolean).map(word => {
      const [, name, sign, limit] = COMPARISON.exec(word) || [];
      const column = name && this.columns.find(other => other.name.toLowerCase().replaceAll(' ', '') === name);
      if (column && column.isNumber && !isNaN(limit)) return row => SIGNS[sign](column.value(row), Number(limit));
      if (column && sign === '=') return row => column.text(row).toLowerCase() === limit;
      if (this.holds && /^\d+$/.test(word)) return row => this.holds(row, Number(word));
      return row => this.textOf(row).includes(word);
    });
  }
  filter() {
    const tests = this.tests();
    this.order = [];
    for (let row = 0; row < this.count; ++row)
      if (tests.every(test => test(row))) this.order.push(row);
    this.counter.textContent = tests.length ? `${shown(this.order.length)} of ${shown(this.count)}` : this.note;
    this.arrange();
    if (this.onSearch) this.onSearch(tests.length ? this.order : null);
  }
  sort(at) {
    this.isDown = this.sorted === at && !this.isDown;
    this.sorted = at;
    this.heads.forEach((head, other) => {
      if (other === at) head.setAttribute('aria-sort', this.isDown ? 'descending' : 'ascending');
      else head.removeAttribute('aria-sort');
    });
    this.arrange();
  }
  // Rows without a value come last.
  arrange() {
    const column = this.columns[this.sorted], sign = this.isDown ? -1 : 1;
    const compare = (a, b) => {
      if (!column.isNumber) return sign * column.text(a).localeCompare(column.text(b));
      const left = column.value(a), right = column.value(b);
      return isNaN(left) - isNaN(right) || sign * (left < right ? -1 : left > right ? 1 : 0);
    };
    if (column) this.order.sort((a, b) => compare(a, b) || a - b);
    this.rows.scrollTop = 0;
    this.draw(true);
  }
  draw(isChanged = false) {
    const first = clamp(Math.floor(this.rows.scrollTop / ROW_PIXELS) - 8, 0, Math.max(this.order.length - 1, 0));
    const last = Math.min(first + Math.ceil((this.rows.clientHeight || 372) / ROW_PIXELS) + 16, this.order.length);
    if (!isChanged && first === this.firstDrawn && last === this.lastDrawn) return;
    Object.assign(this, {firstDrawn: first, lastDrawn: last});
    const wide = this.columns.length + 1;
    const spacer = count =>
      element('tr', {class: 'spacer'}, element('td', {colspan: wide, style: `height:${count * ROW_PIXELS}px`}));
    const rows = this.order.slice(first, last).map(row => this.rowOf(row));
    if (!rows.length) rows.push(element('tr', {}, element('td', {class: 'none', colspan: wide}, 'Nothing matches.')));
    this.body.replaceChildren(spacer(first), ...rows, spacer(this.order.length - last));
  }
  rowOf(row) {
    const cells = this.columns.map(column => {
      const text = column.text(row), content = column.cell ? column.cell(row) : [text];
      return element('td', {class: column.isNumber ? 'n' : '', title: text.length > 16 && text}, ...content);
    });
    const isChosen = row === this.chosen && 'true';
    return element('tr', {'data-row': row, 'aria-selected': isChosen, onclick: () => this.choose(row, true)}, ...cells,
      element('td'));
  }
  choose(row, isClicked = false) {
    this.chosen = row;
    const at = isClicked ? -1 : this.order.indexOf(row);
    if (at >= 0) this.rows.scrollTop = Math.max(at * ROW_PIXELS - 120, 0);
    this.draw(true);
    if (isClicked && this.onChoose) this.onChoose(row);
  }
}
