import { Store } from "../store";

/** The time that map and plots point at; null: none. */
export const cursor = new Store<number | null>(null);
