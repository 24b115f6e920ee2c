import { useEffect, useReducer, useRef, useState } from "preact/hooks";
import { ApiError } from "./api";

/** A value that components and plots follow. */
export class Store<T> {
  private readonly followers = new Set<(value: T) => void>();
  constructor(private current: T) {}

  get value(): T {
    return this.current;
  }

  set(value: T): void {
    if (Object.is(value, this.current)) return;
    this.current = value;
    for (const follower of [...this.followers]) follower(value);
  }

  /** Returns what ends the subscription. */
  follow(follower: (value: T) => void): () => void {
    this.followers.add(follower);
    return () => void this.followers.delete(follower);
  }
}

export function useStore<T>(store: Store<T>): T {
  const [, redraw] = useReducer((count: number, _: T) => count + 1, 0);
  useEffect(() => store.follow(redraw), [store]);
  return store.value;
}

export interface Loaded<T> {
  value: T | undefined;
  error: ApiError | undefined;
  loading: boolean;
}

/**
 * Loads when `key` or `version` changes; null loads nothing. With the same key the old value stays until the new one
 * is there. A change of `version` during a load waits for its end, so that frequent updates never starve the page.
 */
export function useLoad<T>(key: string | null, version: unknown, load: (signal: AbortSignal) => Promise<T>): Loaded<T> {
  const [state, setState] = useState<Loaded<T> & { key: string | null }>({
    key: null, value: undefined, error: undefined, loading: key !== null,
  });
  const running = useRef<{ key: string; control: AbortController; again: boolean } | null>(null);
  const latest = useRef(load);
  latest.current = load;

  const start = (wanted: string): void => {
    const mine = { key: wanted, control: new AbortController(), again: false };
    running.current = mine;
    setState((old) => (old.key === wanted ? { ...old, loading: true }
      : { key: wanted, value: undefined, error: undefined, loading: true }));
    const ended = (change: Partial<Loaded<T>>): void => {
      if (running.current !== mine) return;
      running.current = null;
      setState((old) => ({ ...old, ...change, loading: false }));
      if (mine.again) start(wanted);
    };
    latest.current(mine.control.signal).then(
      (value) => ended({ value, error: undefined }),
      (error: unknown) => ended({ error: error instanceof ApiError ? error : new ApiError(0, String(error)) }),
    );
  };

  useEffect(() => {
    const current = running.current;
    if (current && current.key === key) {
      current.again = true;
      return;
    }
    if (current) {
      running.current = null;
      current.control.abort();
    }
    if (key !== null) start(key);
  }, [key, version]);
  useEffect(() => () => {
    running.current?.control.abort();
    running.current = null;
  }, []);

  return state.key === key ? state : { value: undefined, error: undefined, loading: key !== null };
}

/** Returns the value after it has not changed for `delayMs`. */
export function useSettled<T>(value: T, delayMs: number): T {
  const [settled, setSettled] = useState(value);
  useEffect(() => {
    const timer = setTimeout(() => setSettled(value), delayMs);
    return () => clearTimeout(timer);
  }, [value, delayMs]);
  return settled;
}

/** The time, refreshed every `periodMs`, for ages. */
export function useNow(periodMs = 5000): number {
  const [now, setNow] = useState(() => Date.now());
  useEffect(() => {
    const timer = setInterval(() => setNow(Date.now()), periodMs);
    return () => clearInterval(timer);
  }, [periodMs]);
  return now;
}
