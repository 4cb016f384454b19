"""Which topic filters are accepted, and what they match."""

SHARE = "$share/"


def is_valid(topic_filter):
    if not topic_filter:
        return False
    hash_at = topic_filter.find("#")
    if hash_at >= 0:
        if hash_at != len(topic_filter) - 1 or (hash_at > 0 and topic_filter[hash_at - 1] != "/"):
            return False
        if hash_at >= 2 and "+" in topic_filter:
            return False
    return all(level == "+" for level in topic_filter.split("/") if "+" in level)


def unshared(topic_filter):
    """The part of a shared subscription's filter that is matched."""
    if topic_filter.startswith(SHARE):
        slash = topic_filter.find("/", len(SHARE))
        if slash >= 0:
            return topic_filter[slash + 1:]
    return topic_filter


def group_name(topic_filter):
    """Name of the shared group, None for a subscription that is not shared."""
    if not topic_filter.startswith(SHARE):
        return None
    slash = topic_filter.find("/", len(SHARE))
    return topic_filter[len(SHARE):slash] if slash >= 0 else None


def matches(topic_filter, topic):
    wanted = unshared(topic_filter)
    if not is_valid(wanted):
        return False
    levels, names = wanted.split("/"), topic.split("/")
    for index, level in enumerate(levels):
        if level == "#":
            return True
        if index >= len(names):
            return False
        if level != "+" and level != names[index]:
            return False
        # Where the topic has ended there is no level for a "+".
        if level == "+" and names[index] == "" and index == len(names) - 1:
            return False
    if len(names) == len(levels):
        return True
    # A slash that ends the topic is swallowed by a "+" that ends the filter.
    return levels[-1] == "+" and len(names) == len(levels) + 1 and names[-1] == ""


def place(client_id):
    """The place of a client identifier in the table by which clients are found."""
    value = 0
    for byte in client_id.encode():
        value = (value * 31 + byte - (256 if byte > 127 else 0)) & 0xFFFFFFFF
    return value % 11000
