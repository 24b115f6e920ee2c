/** Small parts that all views use. */
import type { ComponentChildren, JSX } from "preact";
import type { ApiError } from "./api";
import { age, stamp, utc, zone } from "./format";
import type { Loaded } from "./store";
import { useNow } from "./store";

/** Local time; UTC beside it, or in its tooltip. */
export function Time(props: { ms: number; both?: boolean; withMs?: boolean }): JSX.Element {
  const { ms, both = false, withMs = false } = props;
  const inUtc = utc(ms, withMs);
  const date = new Date(ms);
  return (
    <time dateTime={Number.isNaN(date.getTime()) ? "" : date.toISOString()} title={inUtc} class="num">
      {stamp(ms, withMs)}
      {both && zone(ms) !== "UTC" && <small class="muted"> {inUtc.slice(11)}</small>}
      {both && zone(ms) === "UTC" && <small class="muted"> UTC</small>}
    </time>
  );
}

/** "3 min ago"; the time itself in the tooltip. */
export function Age(props: { ms: number }): JSX.Element {
  const now = useNow();
  return <time class="num" title={`${stamp(props.ms)} (${utc(props.ms)})`}>{age(props.ms, now)}</time>;
}

export type Tone = "good" | "bad" | "warn" | "info" | "plain";

export function Chip(props: { tone: Tone; children: ComponentChildren; title?: string }): JSX.Element {
  return <span class={`chip ${props.tone}`} title={props.title}>{props.children}</span>;
}

/** Without presence, what came was read from a file. */
export function Online(props: { online: boolean; seenMs: number }): JSX.Element {
  if (props.seenMs === 0) return <Chip tone="plain" title="No presence: what this vehicle sent came through a file.">from a file</Chip>;
  return props.online ? <Chip tone="good">● online</Chip> : <Chip tone="plain">○ offline</Chip>;
}

export function Empty(props: { title: string; children?: ComponentChildren }): JSX.Element {
  return (
    <div class="empty">
      <p class="empty-title">{props.title}</p>
      {props.children}
    </div>
  );
}

export function ErrorBox(props: { error: ApiError | Error; title?: string }): JSX.Element {
  return (
    <div class="notice bad" role="alert">
      <strong>{props.title ?? "That did not work."}</strong> {props.error.message}
    </div>
  );
}

export function Busy(props: { what: string }): JSX.Element {
  return <p class="busy" role="status"><span class="spinner" aria-hidden="true" /> {props.what} …</p>;
}

/** What is loaded, or why it is not there. Old content stays during an error, which is shown above it. */
export function Show<T>(props: {
  loaded: Loaded<T>;
  what: string;
  children: (value: T) => ComponentChildren;
}): JSX.Element {
  const { loaded, what, children } = props;
  return (
    <>
      {loaded.error && <ErrorBox error={loaded.error} title={`Cannot load ${what}.`} />}
      {loaded.value !== undefined ? children(loaded.value) : !loaded.error && <Busy what={`Loading ${what}`} />}
    </>
  );
}

export function Stat(props: { label: string; value: ComponentChildren; tone?: Tone; note?: ComponentChildren }): JSX.Element {
  return (
    <div class={`stat ${props.tone ?? ""}`}>
      <dt>{props.label}</dt>
      <dd>
        <span class="stat-value num">{props.value}</span>
        {props.note !== undefined && <span class="stat-note">{props.note}</span>}
      </dd>
    </div>
  );
}

/** A wide table scrolls within itself, also by keyboard. */
export function Scroll(props: { label: string; children: ComponentChildren }): JSX.Element {
  return <div class="scroll" role="region" aria-label={props.label} tabIndex={0}>{props.children}</div>;
}

export function Panel(props: {
  title: string;
  actions?: ComponentChildren;
  children: ComponentChildren;
  class?: string;
  busy?: boolean;
}): JSX.Element {
  const id = `panel-${props.title.toLowerCase().replace(/[^a-z0-9]+/g, "-")}`;
  return (
    <section class={`panel ${props.class ?? ""}`} aria-labelledby={id}>
      <header class="panel-head">
        <h2 id={id}>{props.title}{props.busy && <span class="spinner" role="status" aria-label="loading" />}</h2>
        {props.actions !== undefined && <div class="actions">{props.actions}</div>}
      </header>
      {props.children}
    </section>
  );
}
