#pragma once
/// The client side of a service: what generated proxies are made of.
