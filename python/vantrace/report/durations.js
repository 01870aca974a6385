// Histograms of durations, from buckets that are four to each power of two.

import { drawing, element } from './dom.js';
import { countText, timeText } from './format.js';

const shares = ['p50', 'p95', 'p99'];

/** [bucket, count] from the first to the last that has any, those between included. */
function gapless(counts) {
  const buckets = [...counts.keys()];
  if (buckets.length === 0) return [];
  const first = Math.min(...buckets);
  const last = Math.max(...buckets);
  return Array.from({ length: last - first + 1 }, (_, i) => [first + i, counts.get(first + i) ?? 0]);
}

/** The shape alone, for a table's cell. */
export function spark({ counts }) {
  const bars = gapless(counts);
  const most = Math.max(1, ...bars.map(([, count]) => count));
  const width = Math.min(8, 110 / Math.max(1, bars.length));
  const path = bars
    .map(([, count], i) => {
      const height = count ? Math.max(1.5, (20 * count) / most) : 0;
      return `M${(i * width).toFixed(2)} 22v${-height}h${Math.max(0.6, width - 0.6).toFixed(2)}v${height}z`;
    })
    .join('');
  return drawing(
    'svg',
    { class: 'spark', width: 112, height: 22, 'aria-hidden': 'true' },
    drawing('path', { d: path }),
  );
}

/** With lines at the durations that half, 95 and 99 of 100 calls keep to; the scale is logarithmic. */
export function histogram(row, buckets) {
  const bars = gapless(row.counts);
  const most = Math.max(1, ...bars.map(([, count]) => count));
  const columns = bars.map(([bucket, count]) => {
    const until = buckets[bucket + 1] ?? Infinity;
    const marks = shares.filter((mark) => row[mark] >= buckets[bucket] && row[mark] < until);
    const column = element(
      'div',
      {
        class: marks.length ? 'column marked' : 'column',
        title: [`${timeText(buckets[bucket])} to ${timeText(until)}: ${countText(count)}`, ...marks].join(', '),
      },
      element('i'),
    );
    column.firstChild.style.height = count ? `${Math.max(2, (100 * count) / most)}%` : '0';
    return column;
  });
  const last = bars.at(-1)?.[0];
  return element(
    'figure',
    { class: 'histogram' },
    element('div', { class: 'columns' }, ...columns),
    element(
      'figcaption',
      {},
      element('span', {}, bars.length ? timeText(buckets[bars[0][0]], 3) : ''),
      element('span', {}, shares.map((mark) => `${mark} ${timeText(row[mark], 3)}`).join(' · ')),
      element('span', {}, bars.length ? timeText(buckets[last + 1] ?? buckets[last], 3) : ''),
    ),
  );
}
