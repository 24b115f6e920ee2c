/** Dark or light: what the system prefers, until somebody chooses. */
import { Store } from "./store";

type Theme = "dark" | "light";
const KEY = "vlm-theme";
const system = matchMedia("(prefers-color-scheme: dark)");

function chosen(): Theme | null {
  try {
    const stored = localStorage.getItem(KEY);
    return stored === "dark" || stored === "light" ? stored : null;
  } catch {
    return null; // the browser keeps nothing
  }
}

export const theme = new Store<Theme>(chosen() ?? (system.matches ? "dark" : "light"));
document.documentElement.dataset.theme = theme.value;
theme.follow((value) => void (document.documentElement.dataset.theme = value));
system.addEventListener("change", () => {
  if (chosen() === null) theme.set(system.matches ? "dark" : "light");
});

export function toggleTheme(): void {
  const next = theme.value === "dark" ? "light" : "dark";
  try {
    localStorage.setItem(KEY, next);
  } catch {
    // holds until the page is closed
  }
  theme.set(next);
}

/** A custom property of styles.css, for what is drawn on a canvas. */
export function colour(name: string): string {
  return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}
