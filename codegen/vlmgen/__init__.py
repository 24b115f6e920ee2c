"""Generates the communication bindings, adapters, catalog and documentation from service descriptions."""
