// SPDX-License-Identifier: Apache-2.0

// The page of a fleet: errors, what needs a look, why, what is missing, and all boards with their nights.

const kShownRows = 200; // of the boards; a button shows more
const kStateKinds = {
  'errors': 'bad', 'odd': 'bad', 'worse': 'bad', 'failed': 'bad', 'no runs': 'bad', 'vanished': 'bad', 'incomplete': 'unclear', 'absent': 'aside', 'good': 'good',
};
const kStates = Object.keys(kStateKinds);
const kSpark = {width: 160, height: 24, edge: 3};
const kHistory = {width: 320, height: 110, edge: 8, labels: 46};

// Where a value and a night are in a drawing. Nights are counted from the first one that is drawn.
function scaleOfDrawing({width, height, edge, labels = 0}, nights, values) {
  const least = Math.min(...values);
  const most = Math.max(...values);
  const spread = most - least || Math.abs(most) || 1;
  const step = (width - labels - 2 * edge) / Math.max(1, nights - 1);
  return {
    least, most,
    x: (night) => Number((labels + edge + (nights > 1 ? night * step : (width - labels) / 2 - edge)).toFixed(1)),
    y: (value) => Number((height - edge - (value - least) / spread * (height - 2 * edge)).toFixed(1)),
  };
}

function lineThrough(points) {
  return points.map(([x, y], at) => `${at === 0 ? 'M' : 'L'}${x} ${y}`).join('');
}

// A line through the values of the nights; a gap where there is none.
function sparkline(values, range, words, kind) {
  const known = values.map((value, night) => [night, value]).filter(([, value]) => value !== null);
  if (known.length === 0) return absent();
  const {x, y} = scaleOfDrawing(kSpark, values.length, range);
  const inRange = (value) => Math.max(range[0], Math.min(range[1], value));
  const pieces = [];
  known.forEach(([night, value], at) => {
    if (at === 0 || known[at - 1][0] !== night - 1) pieces.push([]);
    pieces[pieces.length - 1].push([x(night), y(inRange(value))]);
  });
  const [lastNight, last] = known[known.length - 1];
  return svg('svg', {class: 'spark', role: 'img', 'aria-label': words, viewBox: `0 0 ${kSpark.width} ${kSpark.height}`,
    width: kSpark.width, height: kSpark.height},
  svg('path', {class: 'course', d: pieces.map(lineThrough).join('')}),
  svg('circle', {class: `value ${kind}`, cx: x(lastNight), cy: y(inRange(last)), r: 3}));
}

function nightName(data, night) {
  return data.nights[night].night;
}

// The nights of a board on those of the fleet: a band with nine tenths of the boards, their median, the board's values with
// intervals.
function historyDrawing(data, measure, values) {
  const first = data.first_night;
  const count = data.nights.length - first;
  const ends = [...measure.nights.flatMap(([, , , low, high]) => [low, high]),
    ...values.flatMap(([, value, low, high]) => [low ?? value, high ?? value])];
  const {x, y, least, most} = scaleOfDrawing(kHistory, count, ends);
  const at = (night) => x(night - first);
  const lows = measure.nights.map(([night, , , low]) => [at(night), y(low)]);
  const highs = measure.nights.map(([night, , , , high]) => [at(night), y(high)]);
  const label = (value, place) => svg('text', {x: kHistory.labels, y: place, 'text-anchor': 'end'}, shortNumber(value));
  const intervals = values.filter(([, , low]) => low !== null).map(([night, , low, high]) =>
    svg('line', {class: 'interval', x1: at(night), x2: at(night), y1: y(low), y2: y(high)}));
  const dots = values.map(([night, value], place) => svg('circle',
      {class: `value ${place === values.length - 1 ? 'last' : ''}`, cx: at(night), cy: y(value), r: place === values.length - 1 ? 4 : 2.5}));
  const words = `${measure.title}: ${values.map(([night, value]) => `${nightName(data, night)} ${shortNumber(value)}`).join(', ')}`;
  return svg('svg', {class: 'history', role: 'img', 'aria-label': words, viewBox: `0 0 ${kHistory.width} ${kHistory.height}`,
    width: kHistory.width, height: kHistory.height},
  svg('path', {class: 'band', d: `${lineThrough([...lows, ...highs.reverse()])}Z`}),
  svg('path', {class: 'course', d: lineThrough(measure.nights.map(([night, , median]) => [at(night), y(median)]))}),
  ...intervals, ...dots, label(most, 14), label(least, kHistory.height - 6));
}

function detailSection(data, detail) {
  const rows = detail.conditions.map(({name, typical, here}) =>
    el('tr', {}, rowHeading(name), el('td', {}, here), el('td', {}, typical)));
  const cells = data.not_done.filter(({board}) => board === detail.board).slice(0, 20);
  const gone = data.absent.filter(({board}) => board === detail.board);
  const errors = data.with_errors.filter(({board}) => board === detail.board).slice(0, 20);
  const texts = [...errors, ...detail.findings, ...cells, ...gone].map(({text}) => text);
  const drawings = detail.figures.filter(({measure}) => data.measures[measure].nights.length > 0)
      .map(({measure, values}) => el('figure', {}, el('figcaption', {class: 'minor'}, `${data.measures[measure].title} (${data.measures[measure].unit})`),
          historyDrawing(data, data.measures[measure], values)));
  const beside = detail.typical_boards.join(', ');
  return el('div', {class: 'board'},
      el('h3', {}, detail.board, ' ', el('span', {class: `state ${kStateKinds[detail.state]}`}, detail.state)),
      ...(texts.length > 0 ? [listOf(texts)] : []),
      ...(detail.troubles.length > 0 ? [el('div', {class: 'warnings'}, listOf(detail.troubles))] : []),
      ...(rows.length > 0 ? [table('conditions', ['', 'This board', `Typical: ${beside}`], [], rows)] : []),
      el('div', {class: 'histories'}, drawings));
}

function lookSection(data) {
  const bad = kStates.filter((state) => kStateKinds[state] === 'bad').reduce((sum, state) => sum + data.counts[state], 0);
  const shown = data.details.map((detail) => detailSection(data, detail));
  const bands = 'Dots are the nights of the board, lines their intervals of 95 % over its runs. The band holds nine tenths of ' +
    'the boards, the line is their median.';
  const detailed = data.details.filter(({state}) => kStateKinds[state] === 'bad').length;
  const cut = detailed < bad ? [el('p', {}, `${bad - detailed} more stand out: see the table of all boards.`)] : [];
  if (shown.length === 0) return [];
  return [section(bad > 0 ? 'Boards to look at' : 'Boards', el('p', {class: 'absent'}, bands), ...shown, ...cut)];
}

function errorSection(data) {
  if (data.cells_with_errors === 0) return [];
  const rows = data.with_errors.map(({number, board, text}) => el('tr', {class: 'bad'},
      rowHeading(String(number), {'data-value': number}), el('td', {}, board), el('td', {class: 'words'}, text)));
  const more = data.cells_with_errors - data.with_errors.length;
  return [section('Cells with errors', table('errors', ['Cell', 'Board', 'What'], [], rows),
      ...(more > 0 ? [el('p', {}, `${thousands(more)} more; stress_scope collect lists all.`)] : []))];
}

function missingSection(data) {
  const gone = data.absent.length > 0 ? [section('Absent boards', listOf(data.absent.map(({text}) => text)))] : [];
  if (data.not_done_cells === 0) return gone;
  const rows = data.not_done.map(({number, board, state, reason, folder}) => el('tr', {class: kStateKinds[state] ?? 'unclear'},
      rowHeading(String(number), {'data-value': number}), el('td', {}, board), el('td', {class: 'verdict'}, state), el('td', {}, reason), el('td', {}, folder)));
  const more = data.not_done_cells - data.not_done.length;
  return [section('Cells that are not done', table('missing', ['Cell', 'Board', 'State', 'Why', 'Folder'], [], rows),
      ...(more > 0 ? [el('p', {}, `${thousands(more)} more; stress_scope collect lists all.`)] : [])), ...gone];
}

// The range of all drawings of a column, so that they can be compared: without the outermost hundredth of the values.
function commonRange(rows) {
  const values = rows.flat().filter((value) => value !== null).sort((a, b) => a - b);
  if (values.length === 0) return [99, 101];
  const at = (share) => values[Math.round(share * (values.length - 1))];
  return [Math.min(at(0.01), 99), Math.max(at(0.99), 101)];
}

// What the columns of the table of boards are sorted by; null: no value.
const kBoardValues = [
  ({board}) => board, ({state}) => kStates.indexOf(state), ({cells, done}) => (cells > 0 ? done / cells : null),
  ({index}) => index[index.length - 1], ({index}) => index[index.length - 1],
];

// Boards without a value come last.
function sortBoards(boards, column, rising) {
  const valueOf = kBoardValues[column];
  const order = (a, b) => (column === 0 ? a.localeCompare(b, 'en', {numeric: true}) : a - b);
  boards.sort((a, b) => {
    const [left, right] = [valueOf(a), valueOf(b)];
    if (left === null || right === null) return (left === null) - (right === null);
    return rising ? order(left, right) : -order(left, right);
  });
}

function boardRow(board, range) {
  const last = board.index[board.index.length - 1];
  const kind = kStateKinds[board.state];
  return el('tr', {}, rowHeading(board.board),
      el('td', {class: `words verdict ${kind}`, 'data-value': kStates.indexOf(board.state)}, board.state),
      figureCell(board.cells > 0 ? board.done / board.cells : null, () => `${board.done} of ${board.cells}`, board.done < board.cells),
      figureCell(last, (value) => value.toFixed(1)),
      el('td', {class: 'drawn', 'data-value': last}, sparkline(board.index, range, `${board.board}: ${board.index.map((value) => value ?? '–').join(', ')}`, kind)));
}

// Thousands of rows take seconds to draw, so they come in parts, and a field finds one by its name.
function boardSection(data) {
  const range = commonRange(data.boards.map(({index}) => index));
  const order = [...data.boards].sort((a, b) =>
    kStates.indexOf(a.state) - kStates.indexOf(b.state) || a.board.localeCompare(b.board, 'en', {numeric: true}));
  const titles = ['State', 'Cells done', 'Last night', 'Nights'].map((title) => ({title, lower_is_better: true}));
  // The rows that are not drawn yet are sorted, too.
  const sort = (heading) => {
    sortBoards(order, heading.cellIndex, turnHeading(heading));
    find();
  };
  const shown = table('figures boards', ['Board'], titles, [], sort);
  const body = shown.querySelector('tbody');
  const more = el('button', {type: 'button', class: 'more'}, 'Show more');
  const found = el('p', {class: 'absent'});
  const field = el('input', {type: 'search', 'aria-label': 'Name of a board', placeholder: 'Name of a board'});
  let matching = order;
  const show = () => {
    const from = body.rows.length;
    body.append(...matching.slice(from, from + kShownRows).map((board) => boardRow(board, range)));
    more.hidden = body.rows.length >= matching.length;
    found.textContent = `${thousands(body.rows.length)} of ${counted(matching.length, 'board')}`;
  };
  more.addEventListener('click', show);
  const find = () => {
    matching = order.filter(({board, state}) => `${board} ${state}`.toLowerCase().includes(field.value.toLowerCase()));
    body.replaceChildren();
    show();
  };
  field.addEventListener('input', find);
  show();
  return section('All boards', el('p', {class: 'absent'}, 'The mean of the judged figures, in per cent of the fleet’s median ' +
    `over all nights. The drawings go from ${shortNumber(range[0])} to ${shortNumber(range[1])} %.`), ...(data.boards.length > 10 ? [field] : []), found, shown, more);
}

function nightSection(data) {
  const shown = data.nights.slice(data.first_night).reverse();
  const rows = shown.map(({night, cells, done, errors, compared}) => el('tr', {}, rowHeading(night), el('td', {}, thousands(cells)),
      el('td', {class: done < cells && 'bad'}, thousands(done)), el('td', {class: errors > 0 && 'bad'}, thousands(errors)),
      el('td', {}, compared ? 'yes' : 'no: another configuration, other times or other checks')));
  const cut = data.first_night > 0 ? [el('p', {}, `${thousands(data.first_night)} earlier.`)] : [];
  return section('Nights', table('nights', ['Night', 'Cells', 'Done', 'Errors', 'Compared'], [], rows), ...cut);
}

function measureRow(data, measure) {
  const nights = data.nights.slice(data.first_night).map((_, at) => measure.nights.find(([night]) => night === at + data.first_night));
  const last = nights[nights.length - 1];
  const medians = nights.map((night) => night?.[2] ?? null);
  const known = medians.filter((value) => value !== null);
  const kind = measure.worse ? 'bad' : 'good';
  return el('tr', {}, rowHeading(`${measure.title} (${measure.unit})`), figureCell(last?.[1], thousands), figureCell(last?.[2], shortNumber),
      figureCell(last?.[3], shortNumber), figureCell(last?.[4], shortNumber),
      figureCell(measure.change_percent, (value) => percentText(value, 1), measure.worse),
      el('td', {class: 'drawn', 'data-value': last?.[2]},
          sparkline(medians, [Math.min(...known), Math.max(...known)], `${measure.title}: ${medians.map((value) => value === null ? '–' : shortNumber(value)).join(', ')}`, kind)));
}

function fleetSection(data) {
  const measures = data.measures.filter(({judged, nights}) => judged && nights.length > 0);
  const titles = ['Boards', 'Median', '5 % are below', '5 % are above', 'Change', 'Nights'].map((title) => ({title}));
  if (measures.length === 0) return [];
  return [section('The fleet', el('p', {class: 'absent'}, 'Figures of the last night. 5 % of the boards are below the first limit, and 5 % above the second. ' +
    'The change is that of all boards together since the ' +
    `${data.baseline === null ? 'earlier nights' : `baseline ${data.baseline}`}.`),
  table('figures measures', ['Figure'], titles, measures.map((measure) => measureRow(data, measure))))];
}

function showFleet(data) {
  const kind = data.exit_status === 0 ? 'good' : 'bad';
  const share = shortNumber(data.confidence * 100);
  const facts = [`${counted(data.nights.length, 'night')}, the last one ${data.night}`, `${counted(data.boards_compared, 'board')} compared with each other`,
    `${data.boards_with_history} with what they were before`];
  showPage({
    heading: 'stress_scope fleet',
    title: data.sentence,
    heads: [el('p', {}, el('strong', {}, data.folder), ` ${facts.join(', ')}`)],
    figures: [],
    sections: [
      section('Answer', el('p', {class: `answer ${kind}`}, data.sentence), el('p', {class: 'absent'},
          `If all boards are good, none is called odd or worse in ${share} of 100 nights. Differences up to ${data.tolerance_percent} % do not count.`)),
      ...errorSection(data), ...lookSection(data), ...missingSection(data), boardSection(data), ...fleetSection(data), nightSection(data),
      section('Notes', data.notes.length > 0 ? listOf(data.notes) : el('p', {}, 'None.')),
    ],
    charts: [],
  });
}
