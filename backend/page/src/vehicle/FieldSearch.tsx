/** Finds a field of the catalog by its words. */
import type { JSX } from "preact";
import { useId, useMemo, useState } from "preact/hooks";
import type { Known } from "./fields";
import { search } from "./fields";

export function FieldSearch(props: {
  known: Map<string, Known>;
  views: ReadonlySet<string>;
  onChoose: (column: string) => void;
}): JSX.Element {
  const { known, views, onChoose } = props;
  const id = useId();
  const [text, setText] = useState("");
  const [open, setOpen] = useState(false);
  const [active, setActive] = useState(0);
  const found = useMemo(() => (open ? search(known.values(), text, views) : []), [known, views, text, open]);
  const choose = (entry: Known | undefined): void => {
    if (!entry) return;
    onChoose(entry.column);
    setText("");
    setOpen(false);
  };
  const move = (step: number): void => {
    const next = Math.min(Math.max(active + step, 0), found.length - 1);
    setActive(next);
    document.getElementById(`${id}-${next}`)?.scrollIntoView({ block: "nearest" });
  };
  const onKeyDown = (event: KeyboardEvent): void => {
    if (event.key === "Escape") setOpen(false);
    else if (event.key === "Enter") choose(found[active]);
    else if (event.key === "ArrowDown" && !open) setOpen(true);
    else if (event.key === "ArrowDown") move(1);
    else if (event.key === "ArrowUp") move(-1);
    else return;
    event.preventDefault();
  };
  return (
    <div class="combo">
      <input type="search" role="combobox" aria-label="Add a plot: search fields" placeholder="Add a plot: speed, battery, °C …"
        aria-expanded={open} aria-controls={`${id}-list`} aria-autocomplete="list" autoComplete="off"
        aria-activedescendant={open && found[active] ? `${id}-${active}` : undefined} value={text}
        onInput={(event) => {
          setText(event.currentTarget.value);
          setActive(0);
          setOpen(true);
        }}
        onFocus={() => setOpen(true)} onBlur={() => setOpen(false)} onKeyDown={onKeyDown} />
      <ul class="combo-list" id={`${id}-list`} role="listbox" aria-label="Fields" hidden={!open}>
        {found.map((entry, index) => (
          <li key={entry.column} id={`${id}-${index}`} role="option" aria-selected={index === active}
            class={views.has(entry.event.view) ? "" : "absent"}
            onMouseDown={(event) => {
              event.preventDefault(); // keeps the focus
              choose(entry);
            }}>
            <span class="combo-name">{entry.field.name}{entry.field.unit !== "" && <span class="unit">{entry.field.unit}</span>}</span>
            <span class="combo-event">{entry.event.catalogService}.{entry.event.resource}{!views.has(entry.event.view) && " · no samples"}</span>
            <span class="combo-meaning">{entry.field.meaning}</span>
          </li>
        ))}
        {open && found.length === 0 && <li role="option" aria-selected="false" aria-disabled="true" class="absent">
          No field has these words. Try a unit or the name of a service.</li>}
      </ul>
    </div>
  );
}
