// The part of the time that is looked at. Times are nanoseconds from the first event.

const leastWidth = 10;

export class Span {
  constructor(duration) {
    this.set(0, duration);
    this.extend(duration);
  }

  get width() {
    return this.end - this.begin;
  }

  get isWhole() {
    return this.begin <= 0 && this.end >= this.duration;
  }

  /** Shows all of a time that became known to be longer, where all was shown before. */
  extend(duration) {
    const wasWhole = this.duration === undefined || this.isWhole;
    this.duration = Math.max(duration, leastWidth);
    if (wasWhole) this.whole();
  }

  whole() {
    this.begin = 0;
    this.end = this.duration;
  }

  /** Keeps inside the whole time, and wide enough. */
  set(begin, end) {
    const most = this.duration ?? Infinity;
    const width = Math.min(Math.max(end - begin, leastWidth), most);
    const middle = (begin + end) / 2;
    this.begin = Math.max(0, Math.min(middle - width / 2, most - width));
    this.end = this.begin + width;
  }

  /** Makes it `factor` times as wide; what is at a share of its width stays there. */
  zoom(factor, share = 0.5) {
    const at = this.begin + share * this.width;
    const width = Math.max(leastWidth, Math.min(this.width * factor, this.duration));
    this.begin = Math.max(0, Math.min(at - share * width, this.duration - width));
    this.end = this.begin + width;
  }

  /** Moves it by a share of its width. */
  move(share) {
    const by = share * this.width;
    const begin = Math.max(0, Math.min(this.begin + by, this.duration - this.width));
    this.end = begin + this.width;
    this.begin = begin;
  }

  /** Moves so that an event is seen; zooms where it would be too wide or too narrow. */
  show(start, duration) {
    const isSeen = start >= this.begin && start + duration <= this.end;
    const share = duration / this.width;
    if (isSeen && share > 0.005) return;
    const width = share > 0.8 || share < 0.005 ? Math.max(duration * 12, 1000) : this.width;
    const middle = start + duration / 2;
    this.set(middle - width / 2, middle + width / 2);
  }
}
