#!/bin/sh
# device_tree.sh IN OUT: copies the kernel's device tree of the board and adds the camera's flash partitions.
set -eu

here=$(dirname "$0")
cp "$1" "$2"
dtb=$2
partitions=/ahb/spi@1e620000/flash@0/partitions

# The bench talks to the board over the first serial line.
fdtput -t s "$dtb" /ahb/apb/serial@1e783000 status okay

# Only the first of the four Ethernet ports is wired. The second one uses the button's pin among others.
for unwired in 1e670000 1e680000 1e690000; do
    fdtput -t s "$dtb" "/ahb/ftgmac@$unwired" status disabled
done

fdtput -r "$dtb" $partitions
fdtput -c "$dtb" $partitions
fdtput -t s "$dtb" $partitions compatible fixed-partitions
fdtput -t x "$dtb" $partitions '#address-cells' 1
fdtput -t x "$dtb" $partitions '#size-cells' 1

# fdtput puts each new node before the others. The kernel numbers nodes in file order. So add the last one first.
sed 's/#.*//' "$here/../common/partitions.txt" |
    awk 'NF { printf "%s %d %d\n", $1, start, $2 * 1024; start += $2 * 1024 }' |
    tac |
    while read -r label start size; do
        node=$partitions/partition@$(printf '%x' "$start")
        fdtput -c "$dtb" "$node"
        fdtput -t s "$dtb" "$node" label "$label"
        fdtput -t i "$dtb" "$node" reg "$start" "$size"
    done
